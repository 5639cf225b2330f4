#pragma once

// The set subcommand: NAME=VALUE edits checked against the catalogue, staged and applied module
// by module through the manager, then read back from the lidar.

#include <QString>

#include "sdk/var_info.h"

namespace cli {

class Session;

// Resolves the edits of the session's arguments, applies them and prints the values read back.
int applyEdits(Session& session);

// A selection's option chosen by its text (any letter case), its raw value, or #INDEX: the
// option's index, or -1 with `problem` listing the choices.
int optionIndex(const VarInfo& var, const QString& requested, QString* problem);
// "2 (Dual)" for a value that has an option text, as read prints it; other values as they are.
QString withOptionText(const VarInfo& var, const QString& value);

}  // namespace cli
