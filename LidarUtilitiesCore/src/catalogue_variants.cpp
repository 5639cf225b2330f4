// The catalogue's side of the monitor: a module found by its name, a variant file's pages
// swapped into a module of the loaded catalogue, and a module's shown values read together.
// The monitor service reaches them through ModuleCatalogueView and ModuleReadingView.

#include "command_text.h"
#include "lidar_utilities_manager.h"
#include "subsystem_views.h"

int LidarUtilitiesManager::moduleIndexNamed(const std::string& name) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    if (!currentParser || !moduleNames) return -1;
    for (size_t i = 0; i < moduleNames.load()->size(); ++i) {
        const auto& names = (*moduleNames)[i];
        if (!names.empty() && names.front() == name) return static_cast<int>(i);
    }
    return -1;
}

bool LidarUtilitiesManager::swapInModuleVariant(int module, const std::string& path) {
    if (!currentParser) return false;
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    auto cached = parserCache.find(path);
    if (cached == parserCache.end()) {
        cached = parserCache.emplace(path, ConfigParser(path)).first;
        if (!cached->second.ExtractConfigInfo()) {
            parserCache.erase(cached);
            monitorParser = nullptr;
            return false;
        }
    }
    ConfigParser& variant = cached->second;
    if (variant.varTree.empty()) return false;
    if (!varTree || module >= static_cast<int>(varTree.load()->size())) return false;
    (*varTree)[module] = variant.varTree.front();
    // The page names go with the pages: the module keeps its own name, the pages are the
    // variant's.
    if (moduleNames && module < static_cast<int>(moduleNames.load()->size()) &&
        !variant.moduleNames.empty()) {
        std::vector<std::string>& names = (*moduleNames)[module];
        const std::string name = names.empty() ? std::string("Monitor") : names.front();
        names = variant.moduleNames.front();
        names.front() = name;
    }
    monitorParser = &variant;
    return true;
}

void LidarUtilitiesManager::forgetModuleVariant() {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    monitorParser = nullptr;
}

bool LidarUtilitiesManager::shownModuleValues(int module, std::vector<ShownValue>& out) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const auto* tree = varTree.load();
    if (!currentParser || module < 0) return false;
    if (!tree || module >= static_cast<int>(tree->size())) return true;
    for (const std::vector<VarInfo*>& page : (*tree)[module])
        for (const VarInfo* var : page)
            if (var != nullptr && !var->hidden)
                out.push_back(
                    {var->var_name + var->name_suffix, readRequestKey(*var), var->current_val});
    return true;
}
