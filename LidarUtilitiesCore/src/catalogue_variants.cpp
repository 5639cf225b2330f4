// The catalogue's side of the monitor: a module found by its name, a variant file's pages
// swapped into a module of the loaded catalogue, and a module's shown values read together.
// The monitor service reaches them through ModuleCatalogueView and ModuleReadingView.

#include "command_text.h"
#include "parameter_catalogue.h"

int ParameterCatalogue::moduleIndexNamed(const std::string& name) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const ModuleNames* names = moduleNames_.load();
    if (!currentParser_ || !names) return -1;
    for (size_t i = 0; i < names->size(); ++i) {
        const auto& module = (*names)[i];
        if (!module.empty() && module.front() == name) return static_cast<int>(i);
    }
    return -1;
}

bool ParameterCatalogue::swapInModuleVariant(int module, const std::string& path) {
    if (!currentParser_) return false;
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    auto cached = parserCache_.find(path);
    if (cached == parserCache_.end()) {
        cached = parserCache_.emplace(path, ConfigParser(path)).first;
        if (!cached->second.ExtractConfigInfo()) {
            parserCache_.erase(cached);
            monitorParser_ = nullptr;
            return false;
        }
    }
    ConfigParser& variant = cached->second;
    if (variant.varTree.empty()) return false;
    VariableTree* tree = varTree_.load();
    if (!tree || module >= static_cast<int>(tree->size())) return false;
    (*tree)[module] = variant.varTree.front();
    // The page names go with the pages: the module keeps its own name, the pages are the
    // variant's.
    ModuleNames* moduleNames = moduleNames_.load();
    if (moduleNames && module < static_cast<int>(moduleNames->size()) &&
        !variant.moduleNames.empty()) {
        std::vector<std::string>& names = (*moduleNames)[module];
        const std::string name = names.empty() ? std::string("Monitor") : names.front();
        names = variant.moduleNames.front();
        names.front() = name;
    }
    monitorParser_ = &variant;
    return true;
}

void ParameterCatalogue::forgetModuleVariant() {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    monitorParser_ = nullptr;
}

bool ParameterCatalogue::shownModuleValues(int module, std::vector<ShownValue>& out) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const VariableTree* tree = varTree_.load();
    if (!currentParser_ || module < 0) return false;
    if (!tree || module >= static_cast<int>(tree->size())) return true;
    for (const std::vector<VarInfo*>& page : (*tree)[module])
        for (const VarInfo* var : page)
            if (var != nullptr && !var->hidden)
                out.push_back(
                    {var->var_name + var->name_suffix, readRequestKey(*var), var->current_val});
    return true;
}
