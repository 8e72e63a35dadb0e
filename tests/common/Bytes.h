// Building byte sequences in tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace qbtest {

/// The parts one after the other, e.g. several serialised messages for one write.
inline std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const std::vector<uint8_t>& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

}  // namespace qbtest
