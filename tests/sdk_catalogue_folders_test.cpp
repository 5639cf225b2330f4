// Where the programs find their catalogues, and the working folder that joins them: real folders,
// links and processes in a temporary directory.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QStandardPaths>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "sdk/catalogue_folders.h"
#include "test_support.h"

namespace fs = std::filesystem;
using lidar::CatalogueFolder;
using lidar::CatalogueOrigin;

namespace {

// An environment variable set for the life of the object, then put back as it was.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) previous_ = old, had_ = true;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (had_)
            setenv(name_, previous_.c_str(), 1);
        else
            unsetenv(name_);
    }

  private:
    const char* name_;
    std::string previous_;
    bool had_ = false;
};

// A catalogue folder with the models named (each a folder with its catalogue) and the files.
void MakeCatalogues(const std::string& root, const std::vector<std::string>& models,
                    const std::vector<std::string>& files = {}) {
    for (const std::string& model : models)
        testsupport::WriteFile(root + "/varID/" + model + "/" + model + ".csv", root + "\n");
    for (const std::string& file : files) testsupport::WriteFile(root + "/" + file, root + "\n");
}

std::string LinkTarget(const std::string& link) {
    std::error_code error;
    if (!fs::is_symlink(fs::symlink_status(link, error))) return "(not a link)";
    return fs::read_symlink(link).string();
}

struct Folders {
    testsupport::TempDir dir;
    std::string user = dir.file("user");
    std::string installed = dir.file("installed");
    std::string working = dir.file("work");
    std::vector<CatalogueFolder> order() const {
        return {{CatalogueOrigin::User, user}, {CatalogueOrigin::Installed, installed}};
    }
};

}  // namespace

TEST(CatalogueFolders, UserAndStateFoldersFollowTheXdgVariables) {
    ScopedEnv home("HOME", "/home/someone");
    {
        ScopedEnv data("XDG_DATA_HOME", "/data/here");
        ScopedEnv state("XDG_STATE_HOME", "/state/here");
        EXPECT_EQ(lidar::UserCatalogueFolder(), "/data/here/lidar-utilities");
        EXPECT_EQ(lidar::UserWorkingFolder(), "/state/here/lidar-utilities");
        // The user's folder is the one Qt programs call the generic data location.
        EXPECT_EQ(
            lidar::UserCatalogueFolder(),
            QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation).toStdString() +
                "/lidar-utilities");
    }
    // Relative values are not valid base folders: the defaults under HOME apply.
    ScopedEnv data("XDG_DATA_HOME", "relative/data");
    ScopedEnv state("XDG_STATE_HOME", "");
    EXPECT_EQ(lidar::UserCatalogueFolder(), "/home/someone/.local/share/lidar-utilities");
    EXPECT_EQ(lidar::UserWorkingFolder(), "/home/someone/.local/state/lidar-utilities");

    const std::vector<CatalogueFolder> order = lidar::CatalogueSearchOrder();
    ASSERT_EQ(order.size(), 3u);
    EXPECT_EQ(order[0].path, "./Config");
    EXPECT_EQ(order[1].path, lidar::UserCatalogueFolder());
    // Beside this very program: <its folder>/../share/lidar-utilities/Config.
    const fs::path self = fs::read_symlink("/proc/self/exe");
    EXPECT_EQ(order[2].path,
              (self.parent_path().parent_path() / "share/lidar-utilities/Config").string());
}

TEST(CatalogueFolders, TheEarlierFolderWinsAModelAndTheLaterIsNamedAsHidden) {
    Folders f;
    MakeCatalogues(f.user, {"Tern", "Kite"});
    MakeCatalogues(f.installed, {"Egret", "Tern"});
    // Not models: a folder without its NAME.csv, a hidden entry, a text file.
    testsupport::WriteFile(f.installed + "/varID/Empty/readme.txt", "x");
    testsupport::WriteFile(f.installed + "/varID/.Hidden/.Hidden.csv", "x");
    testsupport::WriteFile(f.installed + "/varID/notes.txt", "x");
    testsupport::WriteFile(f.installed + "/varID/Plover.CSV", "x");  // the single-file form

    const std::vector<lidar::ModelSource> models = lidar::ModelsIn(f.order());
    std::vector<std::string> names;
    for (const auto& model : models) names.push_back(model.name);
    EXPECT_EQ(names, (std::vector<std::string>{"Egret", "Kite", "Plover", "Tern"}));
    const lidar::ModelSource& tern = models[3];
    EXPECT_EQ(tern.origin, CatalogueOrigin::User);
    EXPECT_EQ(tern.path, f.user + "/varID/Tern");
    EXPECT_EQ(tern.shadowed, std::vector<std::string>{f.installed + "/varID/Tern"});
    EXPECT_EQ(models[0].origin, CatalogueOrigin::Installed);
    EXPECT_TRUE(models[0].shadowed.empty());

    EXPECT_EQ(lidar::CatalogueFolderWithModel("Tern", f.order()), f.user);
    EXPECT_EQ(lidar::CatalogueFolderWithModel("Egret", f.order()), f.installed);
    EXPECT_EQ(lidar::CatalogueFolderWithModel("Empty", f.order()), "");

    // What looks meant as a model but offers none is named with the reason; hidden entries,
    // the text file and the models are not.
    testsupport::WriteFile(f.user + "/varID/.trash/old.txt", "x");
    fs::create_symlink("Circle", f.user + "/varID/Circle");
    fs::create_symlink(f.dir.file("gone"), f.user + "/varID/Dangling");
    fs::create_directories(f.user + "/varID/Looping");
    fs::create_symlink("Looping.csv", f.user + "/varID/Looping/Looping.csv");
    EXPECT_EQ(lidar::UnusableEntriesIn(f.order()),
              (std::vector<std::string>{
                  f.user + "/varID/Circle: cannot be read: Too many levels of symbolic links",
                  f.user + "/varID/Dangling: a link to nothing",
                  f.user + "/varID/Looping: cannot be read: Too many levels of symbolic links",
                  f.installed + "/varID/Empty: a folder without Empty.csv"}));
    // A varID/ that is not a folder is named; a folder without one is no catalogue at all.
    testsupport::WriteFile(f.dir.file("plain/varID"), "x");
    EXPECT_EQ(lidar::UnusableEntriesIn({{CatalogueOrigin::User, f.dir.file("plain")},
                                        {CatalogueOrigin::User, f.dir.file("none")},
                                        {CatalogueOrigin::User, ""}}),
              std::vector<std::string>{f.dir.file("plain/varID") + ": not a folder"});
}

TEST(CatalogueFolders, TheWorkingFolderJoinsThemAndFollowsTheirChanges) {
    Folders f;
    MakeCatalogues(f.user, {"Tern"}, {"auth_config.csv"});
    MakeCatalogues(f.installed, {"Egret", "Tern"}, {"feature_config.csv", "auth_config.csv"});
    testsupport::WriteFile(f.installed + "/varID/Plover.csv", "x");
    lidar::Workplace workplace;
    std::string error;
    ASSERT_TRUE(lidar::JoinCatalogues(f.order(), f.working, &workplace, &error)) << error;
    EXPECT_TRUE(workplace.moved);
    EXPECT_EQ(workplace.folder, f.working);
    const std::string config = f.working + "/Config";
    EXPECT_EQ(LinkTarget(config + "/varID/Tern"), f.user + "/varID/Tern");
    EXPECT_EQ(LinkTarget(config + "/varID/Egret"), f.installed + "/varID/Egret");
    EXPECT_EQ(LinkTarget(config + "/varID/Plover.csv"), f.installed + "/varID/Plover.csv");
    // A user's file replaces the installed one whole; one the user has not stays installed.
    EXPECT_EQ(LinkTarget(config + "/auth_config.csv"), f.user + "/auth_config.csv");
    EXPECT_EQ(LinkTarget(config + "/feature_config.csv"), f.installed + "/feature_config.csv");
    EXPECT_EQ(workplace.authConfig, f.user + "/auth_config.csv");
    EXPECT_EQ(testsupport::ReadFile(config + "/varID/Tern/Tern.csv"), f.user + "\n");
    EXPECT_TRUE(workplace.unusable.empty());

    // The history lives beside the links and survives every join.
    testsupport::WriteFile(config + "/command_log_file.csv", "history\n");
    // The user removes a model and a file of their own, the install loses one: the next join
    // shows the installed Tern again and nothing that is gone.
    fs::remove_all(f.user + "/varID/Tern");
    fs::remove(f.user + "/auth_config.csv");
    fs::remove_all(f.installed + "/varID/Egret");
    fs::remove(f.installed + "/feature_config.csv");
    ASSERT_TRUE(lidar::JoinCatalogues(f.order(), f.working, &workplace, &error)) << error;
    EXPECT_EQ(LinkTarget(config + "/varID/Tern"), f.installed + "/varID/Tern");
    EXPECT_FALSE(fs::exists(fs::symlink_status(config + "/varID/Egret")));
    EXPECT_EQ(LinkTarget(config + "/auth_config.csv"), f.installed + "/auth_config.csv");
    EXPECT_FALSE(fs::exists(fs::symlink_status(config + "/feature_config.csv")));
    EXPECT_TRUE(workplace.featureConfig.empty());
    EXPECT_EQ(testsupport::ReadFile(config + "/command_log_file.csv"), "history\n");
    // Nothing else was left in the folders (no link made aside).
    std::vector<std::string> entries;
    for (const auto& entry : fs::directory_iterator(config + "/varID"))
        entries.push_back(entry.path().filename().string());
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries, (std::vector<std::string>{"Plover.csv", "Tern"}));
}

TEST(CatalogueFolders, ProgramsStartingTogetherAllFindTheirCatalogues) {
    Folders f;
    MakeCatalogues(f.user, {"Tern"});
    MakeCatalogues(f.installed, {"Egret", "Tern", "Wren"}, {"feature_config.csv"});
    // An earlier join pointed Tern elsewhere: every process replaces that link while the others
    // read through it.
    lidar::Workplace first;
    std::string error;
    ASSERT_TRUE(lidar::JoinCatalogues({{CatalogueOrigin::Installed, f.installed}}, f.working,
                                      &first, &error));
    std::vector<pid_t> children;
    for (int i = 0; i < 8; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            bool ok = true;
            for (int round = 0; round < 50 && ok; ++round) {
                lidar::Workplace workplace;
                std::string problem;
                ok = lidar::JoinCatalogues(f.order(), f.working, &workplace, &problem) &&
                     fs::exists(f.working + "/Config/varID/Tern/Tern.csv") &&
                     fs::exists(f.working + "/Config/varID/Egret/Egret.csv");
            }
            _exit(ok ? 0 : 1);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(LinkTarget(f.working + "/Config/varID/Tern"), f.user + "/varID/Tern");
    for (const auto& entry : fs::directory_iterator(f.working + "/Config/varID"))
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
}

TEST(CatalogueFolders, AFileInTheWayOrAnUnwritableHomeIsNamed) {
    Folders f;
    MakeCatalogues(f.installed, {"Egret"});
    // The user's own folder where a link belongs is never replaced.
    testsupport::WriteFile(f.working + "/Config/varID/Egret/mine.txt", "mine");
    lidar::Workplace workplace;
    std::string error;
    EXPECT_FALSE(lidar::JoinCatalogues(f.order(), f.working, &workplace, &error));
    EXPECT_NE(error.find(f.working + "/Config/varID/Egret"), std::string::npos) << error;
    EXPECT_EQ(testsupport::ReadFile(f.working + "/Config/varID/Egret/mine.txt"), "mine");

    // Nor is a file of the user's own where a link belongs: an edited copy of a joined file, or
    // a model's catalogue copied in beside the links.
    fs::remove_all(f.working + "/Config/varID/Egret");
    testsupport::WriteFile(f.installed + "/feature_config.csv", "installed\n");
    testsupport::WriteFile(f.working + "/Config/feature_config.csv", "edited\n");
    error.clear();
    EXPECT_FALSE(lidar::JoinCatalogues(f.order(), f.working, &workplace, &error));
    EXPECT_EQ(error.find(f.working + "/Config/feature_config.csv is in the way"), 0u) << error;
    EXPECT_EQ(testsupport::ReadFile(f.working + "/Config/feature_config.csv"), "edited\n");
    fs::remove(f.working + "/Config/feature_config.csv");
    testsupport::WriteFile(f.installed + "/varID/Plover.csv", "installed\n");
    testsupport::WriteFile(f.working + "/Config/varID/Plover.csv", "copied\n");
    error.clear();
    EXPECT_FALSE(lidar::JoinCatalogues(f.order(), f.working, &workplace, &error));
    EXPECT_NE(error.find(f.working + "/Config/varID/Plover.csv is in the way"), std::string::npos)
        << error;
    EXPECT_EQ(testsupport::ReadFile(f.working + "/Config/varID/Plover.csv"), "copied\n");
    // Once it is moved away, the link takes its place.
    fs::remove(f.working + "/Config/varID/Plover.csv");
    ASSERT_TRUE(lidar::JoinCatalogues(f.order(), f.working, &workplace, &error)) << error;
    EXPECT_EQ(LinkTarget(f.working + "/Config/varID/Plover.csv"),
              f.installed + "/varID/Plover.csv");
    EXPECT_EQ(LinkTarget(f.working + "/Config/feature_config.csv"),
              f.installed + "/feature_config.csv");

    testsupport::WriteFile(f.dir.file("plain"), "a file, not a folder");
    error.clear();
    EXPECT_FALSE(lidar::JoinCatalogues(f.order(), f.dir.file("plain/work"), &workplace, &error));
    EXPECT_NE(error.find("cannot make the working folder " + f.dir.file("plain/work")),
              std::string::npos)
        << error;

    // A home where the working folder cannot be made: the message says how to work elsewhere.
    ScopedEnv data("XDG_DATA_HOME", f.dir.file("data"));
    ScopedEnv state("XDG_STATE_HOME", f.dir.file("plain"));
    MakeCatalogues(f.dir.file("data/lidar-utilities"), {"Tern"});
    testsupport::TempDir empty;
    testsupport::ScopedCwd cwd(empty.path());
    lidar::Workplace chosen;
    error.clear();
    EXPECT_FALSE(lidar::ChooseWorkplace(&chosen, &error));
    EXPECT_EQ(error.find("cannot make the working folder " + f.dir.file("plain")), 0u) << error;
    EXPECT_NE(error.find("; set XDG_STATE_HOME to a folder you can write"), std::string::npos)
        << error;
    // A working folder that is made but cannot take its links needs no such hint.
    ScopedEnv usable("XDG_STATE_HOME", f.dir.file("state"));
    testsupport::WriteFile(f.dir.file("state/lidar-utilities/Config/varID/Tern"), "in the way");
    error.clear();
    EXPECT_FALSE(lidar::ChooseWorkplace(&chosen, &error));
    EXPECT_NE(error.find("is in the way"), std::string::npos) << error;
    EXPECT_EQ(error.find("XDG_STATE_HOME"), std::string::npos) << error;
}

TEST(CatalogueFolders, TheCurrentFolderIsKeptWhenItHasCataloguesOtherwiseTheWorkingFolder) {
    Folders f;
    ScopedEnv data("XDG_DATA_HOME", f.dir.file("data"));
    f.user = f.dir.file("data/lidar-utilities");
    ScopedEnv state("XDG_STATE_HOME", f.dir.file("state"));
    {
        testsupport::TempDir here;
        MakeCatalogues(here.path() + "/Config", {"Local"}, {"feature_config.csv"});
        MakeCatalogues(f.user, {"Tern"});
        testsupport::ScopedCwd cwd(here.path());
        lidar::Workplace workplace;
        std::string error;
        ASSERT_TRUE(lidar::ChooseWorkplace(&workplace, &error)) << error;
        EXPECT_FALSE(workplace.moved);
        EXPECT_EQ(workplace.folder, ".");
        ASSERT_EQ(workplace.models.size(), 1u);  // the current folder's catalogues are taken whole
        EXPECT_EQ(workplace.models[0].name, "Local");
        EXPECT_EQ(workplace.models[0].origin, CatalogueOrigin::CurrentFolder);
        EXPECT_EQ(workplace.featureConfig, "./Config/feature_config.csv");
    }
    testsupport::TempDir empty;
    testsupport::ScopedCwd cwd(empty.path());
    lidar::Workplace workplace;
    std::string error;
    ASSERT_TRUE(lidar::ChooseWorkplace(&workplace, &error)) << error;
    EXPECT_TRUE(workplace.moved);
    EXPECT_EQ(workplace.folder, f.dir.file("state") + "/lidar-utilities");
    EXPECT_EQ(LinkTarget(workplace.folder + "/Config/varID/Tern"), f.user + "/varID/Tern");
    EXPECT_TRUE(fs::is_empty(empty.path()));

    fs::remove_all(f.user);
    EXPECT_FALSE(lidar::ChooseWorkplace(&workplace, &error));
    EXPECT_EQ(
        error.find("no model catalogues: looked in ./Config/varID, " + f.user + "/varID and "), 0u)
        << error;
}
