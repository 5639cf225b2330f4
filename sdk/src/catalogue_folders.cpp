#include "sdk/catalogue_folders.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>

namespace fs = std::filesystem;

namespace lidar {
namespace {

const char* const kFolderName = "lidar-utilities";
const char* const kCurrentConfig = "./Config";
const char* const kInstalledFromProgram = "../share/lidar-utilities/Config";
const char* const kJoinedFiles[] = {"feature_config.csv", "auth_config.csv"};

// An XDG base folder: the variable when it names an absolute path, otherwise $HOME/<fallback>.
// Empty when neither is there.
std::string BaseFolder(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] == '/') return value;
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] == '\0') return std::string();
    return std::string(home) + "/" + fallback;
}

bool IsDirectory(const fs::path& path) {
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

bool IsFile(const fs::path& path) {
    std::error_code ignored;
    return fs::is_regular_file(path, ignored);
}

bool HasCsvExtension(const fs::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".csv";
}

// The model an entry of varID/ holds: a folder NAME with NAME.csv in it, or a file NAME.csv.
// Empty for anything else.
std::string ModelNameOf(const fs::directory_entry& entry) {
    const fs::path& path = entry.path();
    const std::string name = path.filename().string();
    if (name.empty() || name[0] == '.') return std::string();
    if (IsDirectory(path)) return IsFile(path / (name + ".csv")) ? name : std::string();
    if (IsFile(path) && HasCsvExtension(path)) return path.stem().string();
    return std::string();
}

// Why an entry of varID/ that looks meant as a model offers none; empty when it offers one or
// is a plain file (a NAME.csv model, or notes kept beside the models).
std::string WhyNoModel(const fs::path& path) {
    const std::string name = path.filename().string();
    if (name.empty() || name[0] == '.') return std::string();
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found) return "a link to nothing";
    if (error) return "cannot be read: " + error.message();
    if (!fs::is_directory(status)) return std::string();
    std::error_code reached;
    if (fs::is_regular_file(fs::status(path / (name + ".csv"), reached))) return std::string();
    if (reached && reached != std::errc::no_such_file_or_directory)
        return "cannot be read: " + reached.message();
    return "a folder without " + name + ".csv";
}

bool SameFolder(const std::string& a, const std::string& b) {
    std::error_code error;
    return !a.empty() && !b.empty() && fs::equivalent(a, b, error) && !error;
}

// The entries of a folder in name order; none when it cannot be read.
std::vector<fs::directory_entry> EntriesOf(const fs::path& folder) {
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
        entries.push_back(*it);
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.path() < b.path(); });
    return entries;
}

std::string Describe(const std::string& what, const fs::path& path, const std::error_code& error) {
    return what + " " + path.string() + ": " + error.message();
}

// Points <folder>/<name> at `target`. The link is made under a name of this process's own and
// renamed over the old one, so that programs starting together never see a missing link.
bool PlaceLink(const fs::path& folder, const std::string& name, const fs::path& target,
               std::string* error) {
    const fs::path link = folder / name;
    std::error_code status;
    if (fs::is_symlink(fs::symlink_status(link, status)) &&
        fs::read_symlink(link, status) == target && !status)
        return true;
    // Only links are ours to replace: a file or folder the user put here stays, and is named.
    const fs::file_status present = fs::symlink_status(link, status);
    if (fs::exists(present) && !fs::is_symlink(present)) {
        *error = link.string() +
                 " is in the way of the link the program keeps there; move it away (models and "
                 "files of your own belong in " +
                 UserCatalogueFolder() + ")";
        return false;
    }
    const fs::path aside = folder / ("." + name + ".new-" + std::to_string(::getpid()));
    std::error_code ignored;
    fs::remove(aside, ignored);
    std::error_code made;
    fs::create_symlink(target, aside, made);
    if (made) {
        *error = Describe("cannot make the link", aside, made);
        return false;
    }
    std::error_code renamed;
    fs::rename(aside, link, renamed);
    if (renamed) {
        fs::remove(aside, ignored);
        *error = Describe("cannot place the link", link, renamed);
        return false;
    }
    return true;
}

// Removes <folder>/<name> when it is a link (a file of the user's own is never removed).
void RemoveLink(const fs::path& folder, const std::string& name) {
    std::error_code ignored;
    if (fs::is_symlink(fs::symlink_status(folder / name, ignored)))
        fs::remove(folder / name, ignored);
}

// The first folder that has `file`; empty when none has.
std::string FirstWithFile(const std::vector<CatalogueFolder>& folders, const std::string& file) {
    for (const CatalogueFolder& folder : folders)
        if (IsFile(fs::path(folder.path) / file)) return (fs::path(folder.path) / file).string();
    return std::string();
}

// The link name a model takes in varID/: its folder's name, or NAME.csv for a file.
std::string LinkNameOf(const ModelSource& model) {
    return IsDirectory(model.path) ? model.name : model.name + ".csv";
}

bool JoinModels(const std::vector<ModelSource>& models, const fs::path& varId, std::string* error) {
    std::map<std::string, std::string> wanted;
    for (const ModelSource& model : models) wanted[LinkNameOf(model)] = model.path;
    for (const auto& [name, target] : wanted)
        if (!PlaceLink(varId, name, target, error)) return false;
    for (const fs::directory_entry& entry : EntriesOf(varId)) {
        const std::string name = entry.path().filename().string();
        if (wanted.count(name) == 0 && name[0] != '.') RemoveLink(varId, name);
    }
    return true;
}

bool JoinFile(const std::vector<CatalogueFolder>& folders, const fs::path& config,
              const std::string& file, std::string* joined, std::string* error) {
    *joined = FirstWithFile(folders, file);
    if (joined->empty()) {
        RemoveLink(config, file);
        return true;
    }
    return PlaceLink(config, file, *joined, error);
}

}  // namespace

const char* CatalogueOriginName(CatalogueOrigin origin) {
    switch (origin) {
        case CatalogueOrigin::CurrentFolder:
            return "this folder";
        case CatalogueOrigin::User:
            return "user";
        case CatalogueOrigin::Installed:
            return "installed";
    }
    return "";
}

std::string UserCatalogueFolder() {
    const std::string base = BaseFolder("XDG_DATA_HOME", ".local/share");
    return base.empty() ? base : base + "/" + kFolderName;
}

std::string InstalledCatalogueFolder() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (error) return std::string();
    return (program.parent_path() / kInstalledFromProgram).lexically_normal().string();
}

std::string UserWorkingFolder() {
    const std::string base = BaseFolder("XDG_STATE_HOME", ".local/state");
    return base.empty() ? base : base + "/" + kFolderName;
}

std::vector<CatalogueFolder> CatalogueSearchOrder() {
    return {{CatalogueOrigin::CurrentFolder, kCurrentConfig},
            {CatalogueOrigin::User, UserCatalogueFolder()},
            {CatalogueOrigin::Installed, InstalledCatalogueFolder()}};
}

bool HoldsCatalogues(const std::string& folder) {
    return !folder.empty() && IsDirectory(fs::path(folder) / "varID");
}

std::vector<ModelSource> ModelsIn(const std::vector<CatalogueFolder>& folders) {
    std::vector<ModelSource> models;
    for (const CatalogueFolder& folder : folders) {
        if (!HoldsCatalogues(folder.path)) continue;
        for (const fs::directory_entry& entry : EntriesOf(fs::path(folder.path) / "varID")) {
            const std::string name = ModelNameOf(entry);
            if (name.empty()) continue;
            auto known = std::find_if(models.begin(), models.end(),
                                      [&name](const ModelSource& m) { return m.name == name; });
            if (known != models.end())
                known->shadowed.push_back(entry.path().string());
            else
                models.push_back({name, folder.origin, entry.path().string(), {}});
        }
    }
    std::sort(models.begin(), models.end(),
              [](const ModelSource& a, const ModelSource& b) { return a.name < b.name; });
    return models;
}

std::vector<std::string> UnusableEntriesIn(const std::vector<CatalogueFolder>& folders) {
    std::vector<std::string> unusable;
    for (const CatalogueFolder& folder : folders) {
        const fs::path varId = fs::path(folder.path) / "varID";
        std::error_code error;
        const fs::file_status status = fs::status(varId, error);
        if (folder.path.empty() || status.type() == fs::file_type::not_found) continue;
        if (!fs::is_directory(status)) {
            unusable.push_back(varId.string() + ": not a folder");
            continue;
        }
        fs::directory_iterator readable(varId, error);
        if (error) unusable.push_back(varId.string() + ": cannot be read: " + error.message());
        for (const fs::directory_entry& entry : EntriesOf(varId))
            if (const std::string why = WhyNoModel(entry.path()); !why.empty())
                unusable.push_back(entry.path().string() + ": " + why);
    }
    return unusable;
}

std::string CatalogueFolderWithModel(const std::string& model,
                                     const std::vector<CatalogueFolder>& folders) {
    for (const CatalogueFolder& folder : folders) {
        const fs::path varId = fs::path(folder.path) / "varID";
        if (HoldsCatalogues(folder.path) &&
            (IsFile(varId / model / (model + ".csv")) || IsFile(varId / (model + ".csv"))))
            return folder.path;
    }
    return std::string();
}

bool JoinCatalogues(const std::vector<CatalogueFolder>& folders, const std::string& working,
                    Workplace* workplace, std::string* error) {
    const fs::path config = fs::path(working) / "Config";
    const fs::path varId = config / "varID";
    std::error_code made;
    fs::create_directories(varId, made);
    if (made || !IsDirectory(varId)) {
        *error = Describe("cannot make the working folder", varId,
                          made ? made : std::make_error_code(std::errc::not_a_directory));
        return false;
    }
    workplace->folder = working;
    workplace->moved = true;
    workplace->models = ModelsIn(folders);
    workplace->unusable = UnusableEntriesIn(folders);
    return JoinModels(workplace->models, varId, error) &&
           JoinFile(folders, config, kJoinedFiles[0], &workplace->featureConfig, error) &&
           JoinFile(folders, config, kJoinedFiles[1], &workplace->authConfig, error);
}

std::vector<CatalogueFolder> CataloguesInUse() {
    const std::vector<CatalogueFolder> order = CatalogueSearchOrder();
    // Started in the installed share folder, its Config is still the install: the history must
    // not be written there, so the folders are those of anywhere else.
    if (HoldsCatalogues(order[0].path) && !SameFolder(order[0].path, order[2].path))
        return {order[0]};
    return {order[1], order[2]};
}

bool ChooseWorkplace(Workplace* workplace, std::string* error) {
    const std::vector<CatalogueFolder> inUse = CataloguesInUse();
    if (inUse.front().origin == CatalogueOrigin::CurrentFolder) {
        workplace->folder = ".";
        workplace->moved = false;
        workplace->models = ModelsIn(inUse);
        workplace->unusable = UnusableEntriesIn(inUse);
        workplace->featureConfig = FirstWithFile(inUse, kJoinedFiles[0]);
        workplace->authConfig = FirstWithFile(inUse, kJoinedFiles[1]);
        return true;
    }
    const std::vector<CatalogueFolder>& joined = inUse;
    if (!HoldsCatalogues(joined[0].path) && !HoldsCatalogues(joined[1].path)) {
        *error = "no model catalogues: looked in ./Config/varID, " +
                 (joined[0].path.empty() ? std::string("the user's folder (HOME is not set)")
                                         : joined[0].path + "/varID") +
                 " and " + joined[1].path + "/varID";
        return false;
    }
    const std::string working = UserWorkingFolder();
    if (working.empty()) {
        *error = "no working folder: neither XDG_STATE_HOME nor HOME is set";
        return false;
    }
    if (JoinCatalogues(joined, working, workplace, error)) return true;
    // The working folder itself could not be made (a read-only home): say how to work elsewhere.
    if (!workplace->moved) *error += "; set XDG_STATE_HOME to a folder you can write";
    return false;
}

}  // namespace lidar
