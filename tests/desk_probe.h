#pragma once

// What the window's tests look at beside the window: the embedded simulator's state (the bytes
// it holds, the requests it saw, faults to play) and files in the test's own folder. Reachable
// from QML as the singleton `Probe` (import LidarTest 1.0).

#include <QColor>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

class DeskSession;

class DeskProbe : public QObject {
    Q_OBJECT
  public:
    DeskProbe(DeskSession& session, QString folder, QObject* parent = nullptr);

    // The simulator's stored block of a get command, in hexadecimal ("01 2c"); "" when no
    // network simulator runs.
    Q_INVOKABLE QString block(int command) const;
    // Overwrites bytes of the network simulator's stored block of a get command from `offset`
    // with `hex` ("2f 1c"), so that a test knows the value the lidar gives; false when no network
    // simulator runs or the text is not hexadecimal.
    Q_INVOKABLE bool writeBlock(int command, int offset, const QString& hex);
    Q_INVOKABLE int requestCount(int command) const;
    Q_INVOKABLE void resetCounters();
    // A fault in lidar-sim's words ("no-reply", "delay=3000", "status=5"); false when the text
    // is not one.
    Q_INVOKABLE bool setFault(int command, const QString& fault);
    Q_INVOKABLE void clearFaults();
    // The Wren's serial-side settings (standby, spinRate, returnMode, ...), whether the
    // simulator serves its serial lines or VRC over a serial line.
    Q_INVOKABLE QVariantMap serialState() const;
    // The function-safety state the simulated Wren reports from now on, and its fault codes.
    Q_INVOKABLE bool setFaultState(int state, const QVariantList& codes);
    // The text a get block holds at `offset` (up to `length` bytes, cut at the first NUL), for
    // the request payload `payloadHex` ("" or "01"); either kind of simulator.
    Q_INVOKABLE QString blockText(int command, const QString& payloadHex, int offset,
                                  int length) const;
    // Writes `text` (NUL-padded to `length`) into a network simulator's get block; false when
    // none runs or the text is longer.
    Q_INVOKABLE bool writeBlockText(int command, const QString& payloadHex, int offset, int length,
                                    const QString& text);

    // Keys as a person types them, delivered to `item` itself (a field, a list): the test
    // case's own key functions reach only its own window, not the window under test.
    Q_INVOKABLE void typeText(QObject* item, const QString& text) const;
    Q_INVOKABLE void pressKey(QObject* item, int key) const;
    // A key given to the window that shows `item`, as the keyboard gives it: to the item with
    // the active focus, Tab moving the focus along the chain.
    Q_INVOKABLE void pressKeyInWindow(QObject* item, int key) const;

    // What `item` shows on screen now, saved as a PNG file `name` in the test's folder; its path,
    // "" when the item is not in a window.
    Q_INVOKABLE QString grabItem(QObject* item, const QString& name) const;
    // The pixels of an image file within `tolerance` of `colour` in each of red, green and blue,
    // from column `fromX` rightwards; -1 when the file cannot be read.
    Q_INVOKABLE int pixelsOfColour(const QString& path, const QColor& colour, int tolerance,
                                   int fromX = 0) const;

    // The firmware transfers the running simulator received, oldest first: "command",
    // "announcedSize", "receivedSize", "receivedCrc" ("0x" and eight hexadecimal digits) and
    // "completed" (the end phase matched size and CRC).
    Q_INVOKABLE QVariantList transfers() const;
    // The Heron components the network simulator received, oldest first: "type", "size",
    // "crc" (as above) and "completed".
    Q_INVOKABLE QVariantList components() const;

    // The test's own folder, and files in it.
    Q_INVOKABLE QString folder() const { return folder_; }
    Q_INVOKABLE QString writeFile(const QString& name, int size) const;
    // A file `name` in the test's folder holding `text` in UTF-8; its path, "" when it could not
    // be written.
    Q_INVOKABLE QString writeText(const QString& name, const QString& text) const;
    Q_INVOKABLE qint64 fileSize(const QString& path) const;
    Q_INVOKABLE QStringList filesIn(const QString& folder) const;
    Q_INVOKABLE QString readText(const QString& path) const;
    // The CRC-32 of a file's bytes, as transfers() writes it; "" when it cannot be read.
    Q_INVOKABLE QString crc32Of(const QString& path) const;
    // A Heron OTA package in the test's folder holding the components of `sizes` (component
    // name -> byte count, each filled with its own pattern); its path, "" when it cannot be built.
    Q_INVOKABLE QString writeOtaPackage(const QString& name, const QVariantMap& sizes) const;

  private:
    DeskSession& session_;
    QString folder_;
};
