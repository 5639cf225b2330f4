#pragma once

// Checks a front end makes before it asks the manager to write into a folder: a download or a
// recording finds a folder it cannot write only after the lidar has been asked, and the
// manager's messages then say little of why.

#include <QString>

// Why nothing can be written into `folder` ("" when it can): missing, not a folder, or the cause
// the file system gives for refusing a new file there. Asked of the file system itself:
// permission bits say nothing of a read-only mount or of /proc.
QString folderWriteProblem(const QString& folder);
