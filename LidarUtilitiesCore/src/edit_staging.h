#pragma once

// The edit staging: the user's edits of the catalogue's rows (SetText), the set commands they
// stage, and applying the staged commands of one page to the lidar (Run, and WrenRun on the
// Wren's serial lines).
//
// Threads: any thread may stage, count, clear and apply while others do the same; the staged
// commands, the edited rows and the typed variables are kept under this object's lock, which is
// never held while the catalogue or the lidar is asked. A worker that stops the connection
// leaves the clearing to the thread this object lives on (the façade's), as designed.

#include <QObject>
#include <QString>
#include <array>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sdk/types.h"
#include "subsystem_views.h"

struct SetChannel;
struct VarInfo;

class EditStaging : public QObject, public EditStagingSink {
    Q_OBJECT

  public:
    // Starts of the five field-of-view regions, then their ends, as the 0x22 command sends them.
    using FovBounds = std::array<float, 10>;

    EditStaging(DeviceLinkView& link, const BusyView& busy, CatalogueEditView& catalogue,
                GroupReadBack& reads, UserMessageSink& messages);

    // The UI kinds of a row: 1 a typed value, 2 a row that writes its linked switch, 3 an
    // option index. A text that is not a number raises std::stoi's error on kind 3.
    void setText(int type, int page, int group, int row, const QString& text);
    void stageCommand(const std::string& setCmd) override;
    // Stages exactly these bytes for a variable's field (a settings profile's): they go into its
    // set command as they are, in place of an encoding of a text; the command's other fields go
    // back as the lidar holds them.
    void stageBytes(const VarInfo* var, const std::vector<uint8_t>& bytes);
    unsigned long stagedCommandCount() const;
    size_t editedVarCount() const;
    // The set commands that hold staged edits, in the set map's order.
    std::vector<std::string> stagedCommands() const;
    // Whether the user edited this row since the last successful apply.
    bool isEdited(const VarInfo* row) const;
    void clear();
    // clear() now on the owner thread, queued to its event loop from any other.
    void clearOnOwnerThread();

    // Over the VRC client (kinds 0 and 2). True when every staged command of the page was sent
    // and accepted (none staged counts); the user has been told either way.
    bool runOverVrc(int page, const FovBounds& fov);
    // Over the serial client on kind 1; over the VRC client on the other kinds.
    bool runOverSerialLines(int page, const FovBounds& fov);

    // Hexadecimal pairs appended as bytes; a "0x" prefix and a last odd digit are skipped.
    static void writeSubCmdIntoInput(const std::string& text, u8Array_t& out);
    // The name with every word capitalised, and with every word in lower case.
    static std::pair<std::string, std::string> twoCases(const QString& name);

  private:
    void stageTyped(VarInfo* var, const std::string& value);
    void stageLinked(VarInfo* var, const std::string& value);
    void stageOption(VarInfo* var, const std::string& value);
    // Records an edit: the command that carries `written`, the row the user edited.
    void record(VarInfo* edited, VarInfo* written);
    bool apply(int page, const SetChannel& channel, const FovBounds& fov);

    DeviceLinkView& link_;
    const BusyView& busy_;
    CatalogueEditView& catalogue_;
    GroupReadBack& reads_;
    UserMessageSink& messages_;

    mutable std::mutex mutex_;
    // The design's setMap: the set commands with staged edits. Under mutex_.
    std::map<std::string, bool> setMap_;
    // The design's editedVarMap: the rows the user edited since the last successful apply.
    std::map<VarInfo*, bool> editedVarMap_;
    // The variables whose value the user typed since the last apply; only these are encoded
    // from text, every other field of a command goes back as the lidar returned it. Under mutex_.
    std::set<const VarInfo*> typedVars_;
    // The fields staged as bytes since the last apply. Under mutex_.
    std::map<const VarInfo*, std::vector<uint8_t>> stagedBytes_;
};
