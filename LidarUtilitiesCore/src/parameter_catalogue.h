#pragma once

// The parameter catalogue: the models on disk, the pinned model, the loaded catalogue file and
// its parsers (every file loaded once, kept for the manager's life), the variable tree and the
// lookups of a variable by name, id or position. It reads and loads; the page reader
// (page_reader.h) reads the variables' values from the lidar into it.
//
// Threads: model loading runs on the UI thread while workers read. The catalogue pointers are
// atomics; parsers are never freed and their lookup tables never change after extraction, so a
// VarInfo pointer stays valid. The variables' current_val texts, the page lists inside the tree
// (a monitor variant replaces them), the parser cache and the serial indexes are guarded by the
// variables lock (recursive: a cache rebuild reads texts and may log), which others take through
// lockVariables(). The file path and the pinned model are under mutex_.

#include <QString>
#include <QVariantList>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "sdk/config_parser.h"
#include "subsystem_views.h"

class ParameterCatalogue : public CatalogueEditView,
                           public ModuleCatalogueView,
                           public VariableLookup {
  public:
    using VariableTree = std::vector<std::vector<std::vector<VarInfo*>>>;
    using ModuleNames = std::vector<std::vector<std::string>>;

    explicit ParameterCatalogue(std::string configPath);

    // Holds the variables lock: while it is held, current_val texts and the tree's page lists
    // may be read and written.
    std::unique_lock<std::recursive_mutex> lockVariables() const;

    // ---- Models and loading ----
    // The pinned model alone, or every model on disk (sorted, case aside).
    QVariantList modelList() const;
    std::string pinnedModel() const;
    void pinModel(const std::string& model);
    std::string modelConfigPath(const QString& model) const;
    // Takes path as the loaded file; false when it is the loaded file already.
    bool takeConfigPath(const std::string& path);
    // Loads the file at path (once; later from the cache) and makes it the current catalogue.
    void loadParser(const std::string& path);
    std::string configFilePath() const;
    ConfigParser* parser() const { return currentParser_.load(); }
    void buildSerialVarIndexes();
    // The SN texts back to their placeholder, as a disconnect leaves them.
    void resetSerialNumberTexts();

    // ---- The tree: walk it under lockVariables() ----
    VariableTree* variableTree() const { return varTree_.load(); }
    ModuleNames* moduleNameTable() const { return moduleNames_.load(); }
    std::vector<VarInfo*>* logVariables() const { return logVars_.load(); }
    // The timer_update flag at a position of the tree; false without a catalogue or outside it.
    bool timerUpdateAt(int module, int page, int var) const;
    // The module's variables, page by page; false without a catalogue or outside the tree.
    bool moduleVariables(int module, std::vector<VarInfo*>& out) const;
    // False without a catalogue or for a module below 0.
    bool shownModuleValues(int module, std::vector<ShownValue>& out) const;

    // ---- Lookups ----
    VarInfo* searchVarPtr(const std::string& value, const std::string& searchType) const;
    bool resolveVarPosOffset(const VarInfo& var, int index, std::pair<int, int>& out) const;
    bool hasVariableNamed(const QString& name) const;
    QString currentValueOf(const VarInfo* var) const;
    void storeCurrentValue(VarInfo& var, const std::string& text);

    // ---- CatalogueEditView, VariableLookup ----
    bool catalogueLoaded() const override;
    VarInfo* variableAt(int page, int group, int row) const override;
    std::optional<VarGroups> pageGroups(int page) const override;
    std::vector<VarInfo*> variablesOfSetCommand(const std::string& setCmd) const override;
    bool replaceCurrentValue(VarInfo& var, const std::string& text) override;
    std::string currentValue(const VarInfo& var) const override;
    const VarInfo* variableNamed(const std::string& name) const override;

    // ---- ModuleCatalogueView: the monitor's variants ----
    int moduleIndexNamed(const std::string& name) const override;
    QString modelFolder(const QString& model) const override;
    bool swapInModuleVariant(int module, const std::string& path) override;
    void forgetModuleVariant() override;

  private:
    mutable std::recursive_mutex catalogueMutex_;
    // Under catalogueMutex_.
    std::unordered_map<std::string, ConfigParser> parserCache_;
    std::unordered_map<std::string, std::vector<VarInfo*>> serialVarsByName_;
    std::map<int32_t, VarInfo*> serialVarsByIndex_;

    // Set on the UI thread, read by workers.
    std::atomic<ConfigParser*> currentParser_{nullptr};
    std::atomic<ConfigParser*> monitorParser_{nullptr};
    std::atomic<VariableTree*> varTree_{nullptr};
    std::atomic<ModuleNames*> moduleNames_{nullptr};
    std::atomic<std::vector<VarInfo*>*> logVars_{nullptr};

    mutable std::mutex mutex_;
    std::string currentConfigPath_;  // under mutex_
    std::string zpNowName_;          // under mutex_
};
