#pragma once
// The input form of the function-call fuzz target, shared with its seed writer. The first byte
// chooses the reader: 0 the hvSerialize byte vectors (each as a 4-byte little-endian length and
// that many bytes), 1 an EDI payload list in a binary archive without header.
#include <cstdint>
#include <string>
#include <vector>

namespace feval_fuzz {

enum Reader : std::uint8_t { HvBytes = 0, EdiPayloads = 1 };

inline std::vector<std::vector<std::uint8_t>> splitVectors(const std::uint8_t* data,
                                                           std::size_t size) {
    std::vector<std::vector<std::uint8_t>> out;
    while (size >= 4) {
        std::uint32_t n = std::uint32_t(data[0]) | std::uint32_t(data[1]) << 8 |
                          std::uint32_t(data[2]) << 16 | std::uint32_t(data[3]) << 24;
        data += 4;
        size -= 4;
        if (n > size)
            n = static_cast<std::uint32_t>(size);
        out.emplace_back(data, data + n);
        data += n;
        size -= n;
    }
    return out;
}

inline std::string joinVectors(const std::vector<std::vector<std::uint8_t>>& vectors) {
    std::string out(1, char(HvBytes));
    for (auto const& v : vectors) {
        std::uint32_t n = static_cast<std::uint32_t>(v.size());
        for (int i = 0; i < 4; ++i)
            out.push_back(char((n >> (8 * i)) & 0xff));
        out.append(v.begin(), v.end());
    }
    return out;
}

} // namespace feval_fuzz
