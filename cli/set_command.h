#pragma once

// The set subcommand: NAME=VALUE edits checked against the catalogue, staged and applied module
// by module through the manager, then read back from the lidar.

namespace cli {

class Session;

// Resolves the edits of the session's arguments, applies them and prints the values read back.
int applyEdits(Session& session);

}  // namespace cli
