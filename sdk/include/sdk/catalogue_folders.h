#pragma once

#include <string>
#include <vector>

// Where the programs find the model catalogues, from whatever folder they are started in.
//
// A catalogue folder is laid out like the source tree's Config/: varID/<MODEL>/<MODEL>.csv (or
// varID/<MODEL>.csv), feature_config.csv and auth_config.csv. Three are searched, in order:
//   1. ./Config in the current folder, when it holds varID/ (the source tree keeps working);
//   2. the user's own, $XDG_DATA_HOME/lidar-utilities (~/.local/share/lidar-utilities);
//   3. the installed one, <the program's folder>/../share/lidar-utilities/Config.
// The manager reads ./Config/... by design. When the current folder has no catalogues, a front
// end works in the user's working folder instead ($XDG_STATE_HOME/lidar-utilities, by default
// ~/.local/state/lidar-utilities), whose Config/ joins the user's catalogues over the installed
// ones with symbolic links, and keeps the command history. See docs/installing.md.
namespace lidar {

enum class CatalogueOrigin { CurrentFolder, User, Installed };

struct CatalogueFolder {
    CatalogueOrigin origin;
    std::string path;  // absolute, except ./Config; need not exist
};

// One model as the programs see it: the first folder that has it wins.
struct ModelSource {
    std::string name;
    CatalogueOrigin origin;
    std::string path;                   // the model's folder (or file) in varID/
    std::vector<std::string> shadowed;  // same-named models further down the order
};

// Where the programs work: `folder` is the folder to make current ("." when it already is).
struct Workplace {
    std::string folder;
    bool moved = false;  // true: the working folder; false: the current folder's own ./Config
    std::vector<ModelSource> models;
    std::string featureConfig;          // the file the working folder's feature_config.csv links to
    std::string authConfig;             // the same for auth_config.csv
    std::vector<std::string> unusable;  // entries of the folders that offer no model, and why
};

// "this folder", "user" or "installed", as `lidarutil models` says it.
const char* CatalogueOriginName(CatalogueOrigin origin);

// $XDG_DATA_HOME/lidar-utilities, or $HOME/.local/share/lidar-utilities.
std::string UserCatalogueFolder();
// The installed catalogues, found beside the running program: <bin>/../share/lidar-utilities/
// Config, so that an install into a staging folder finds its own.
std::string InstalledCatalogueFolder();
// $XDG_STATE_HOME/lidar-utilities, or $HOME/.local/state/lidar-utilities.
std::string UserWorkingFolder();

// The three folders in the order they are searched.
std::vector<CatalogueFolder> CatalogueSearchOrder();

// The folders the programs take their catalogues from: the current folder's ./Config alone when
// it holds varID/ (and is not the install itself), otherwise the user's over the installed ones.
std::vector<CatalogueFolder> CataloguesInUse();

// True when `folder` holds a varID/ folder.
bool HoldsCatalogues(const std::string& folder);

// The models the folders offer, by name; of two with one name the earlier folder's wins.
std::vector<ModelSource> ModelsIn(const std::vector<CatalogueFolder>& folders);

// What in the folders looks meant as a model but offers none, one "PATH: why" each: a model
// folder without its catalogue or that cannot be read, a link to nothing, a varID/ that is not
// a folder. Without this a user's model would just be missing from the list.
std::vector<std::string> UnusableEntriesIn(const std::vector<CatalogueFolder>& folders);

// The first of `folders` that holds a catalogue of `model`; empty when none does.
std::string CatalogueFolderWithModel(const std::string& model,
                                     const std::vector<CatalogueFolder>& folders);

// Makes <working>/Config a join of `folders` (the earlier one's model, or file, wins): a
// symbolic link per model in varID/, one for feature_config.csv and auth_config.csv; stale links
// are removed, other files (the command history) are left alone. Safe when several programs do
// it at once: every link is made aside and renamed into place. False, with `error`, when a
// folder or link cannot be made.
bool JoinCatalogues(const std::vector<CatalogueFolder>& folders, const std::string& working,
                    Workplace* workplace, std::string* error);

// Where a front end works: the current folder when it holds ./Config/varID, otherwise the
// user's working folder joined from the user's and the installed catalogues. False, with
// `error`, when no folder has a catalogue or the working folder cannot be made.
bool ChooseWorkplace(Workplace* workplace, std::string* error);

}  // namespace lidar
