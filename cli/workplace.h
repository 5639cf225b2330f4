#pragma once

// The folder lidarutil works in. The manager reads its catalogues from ./Config; from a folder
// without one, lidarutil works in the user's working folder, whose Config joins the user's own
// catalogues over the installed ones (lidar::ChooseWorkplace).

#include <QDir>
#include <optional>

#include "options.h"
#include "sdk/catalogue_folders.h"

namespace cli {

// Whether the command's positional arguments name files (a package, an archive, a profile).
bool argumentsAreFiles(const Options& options);

// Makes the files and folders the user named absolute, taken from `userFolder`, so that they
// keep naming the user's files once the program works elsewhere.
void anchorUserPaths(Options& options, const QDir& userFolder);

// Chooses the working folder and moves into it, anchoring `options`' paths first when it is not
// the current one. Nothing (a message printed) when no catalogue is found or the working folder
// cannot be made.
std::optional<lidar::Workplace> settleWorkplace(Options& options);

}  // namespace cli
