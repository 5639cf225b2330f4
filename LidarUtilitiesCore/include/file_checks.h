#pragma once

// Checks a front end makes before a transfer: a download or a recording finds a folder it cannot
// write, and an upgrade a package it cannot send, only after the lidar has been asked, and the
// manager's messages then say little of why.

#include <QByteArray>
#include <QString>

// Why nothing can be written into `folder` ("" when it can): missing, not a folder, or the cause
// the file system gives for refusing a new file there. Asked of the file system itself:
// permission bits say nothing of a read-only mount or of /proc.
QString folderWriteProblem(const QString& folder);

// Why a package file cannot be sent as it is ("" when it can): it cannot be opened, is a folder
// or not a regular file, or is empty. Names the path as given.
QString packageProblem(const QString& path);

// Writes `content` to `path` whole or not at all: beside it first, then renamed into place once
// every byte is on the disk, so that a full disk never leaves a cut file in place of a good one.
// A device or a pipe at `path` is never replaced. False, with *error naming the path and why.
bool writeFileWhole(const QString& path, const QByteArray& content, QString* error);
// True when nothing is at `path` or a regular file is: what writeFileWhole may replace.
bool replaceableFile(const QString& path);
