#pragma once

// Live monitor readings. A real lidar's temperatures, voltages and currents wander and its
// event counters climb; a recording of a simulated one should show curves, and a test should be
// able to tell two readings apart. Every value is a function of the seed and of how many times
// its block has been read, so a run is repeatable.

#include <cstdint>
#include <vector>

#include "block_key.h"
#include "sdk/var_info.h"

namespace sim::detail {

class MonitorSignals {
  public:
    void Clear() { signals_.clear(); }
    // Makes the variable's field of its get block live, unless another signal already drives
    // that field. False for variables that have no numeric value to move.
    bool Add(const BlockKey& key, const VarInfo& var, uint32_t seed);
    // Writes reading number `n` (from 0, which gives the catalogue's default) of the block's
    // live fields into the block.
    void Apply(const BlockKey& key, uint64_t n, Bytes& block) const;
    bool Drives(const BlockKey& key) const;
    // Stops driving the fields that overlap [offset, offset + length) of the block: a value put
    // there on purpose (a test's) stays as it was put.
    void Release(const BlockKey& key, size_t offset, size_t length);

  private:
    struct Signal {
        BlockKey key;
        size_t start = 0;
        VarInfo var;  // type, scale and width of the field
        double base = 0;
        bool counter = false;
        double amplitude = 0;  // measurements: the swing, in display units
        double period = 60;    // measurements: readings per cycle
        double phase = 0;
        double rate = 0;  // counters: events per reading
        int decimals = 0;
    };

    double ValueAt(const Signal& signal, uint64_t n) const;

    std::vector<Signal> signals_;
};

}  // namespace sim::detail
