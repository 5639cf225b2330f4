#pragma once

// A pseudo-terminal standing in for one serial line: the simulator holds the master side, a
// client opens the slave path as it would open /dev/ttyUSB0.

#include <string>

namespace sim::detail {

class PtyLine {
  public:
    PtyLine() = default;
    ~PtyLine();
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;

    // A new pair; false with a reason.
    bool Open(std::string* error);
    void Close();
    int Master() const { return master_; }
    const std::string& Path() const { return path_; }

    // Hangs the line up as a pulled cable does: every open descriptor of the slave side reads
    // the end of the line, and the slave can be opened again at the same path. Needs
    // CAP_SYS_ADMIN (TIOCVHANGUP); without it the pair is replaced by a new one, at a new path.
    // False when no line could be had.
    bool HangUp(std::string* error);

  private:
    bool OpenHolder(std::string* error);

    int master_ = -1;
    // The simulator's own open of the slave side, never read: while a client has its side
    // closed, the master sees no hang-up, and the line's settings (raw, no echo) stay.
    int holder_ = -1;
    std::string path_;
};

}  // namespace sim::detail
