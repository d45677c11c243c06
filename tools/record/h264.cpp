#include "tools/record/h264.h"

#include <algorithm>

#include "tools/recording/recording_error.h"

namespace h264 {
namespace {

constexpr std::string_view kStartCode("\0\0\0\1", 4);
constexpr std::string_view kShortStartCode("\0\0\1", 3);

constexpr char kUserDataUnregistered = 5;
/// Names the SEI's content as this recorder's clock text.
constexpr std::string_view kTextUuid("\x6b\x1f\x0c\x52\xd8\x34\x4e\x9a\xb0\x77\x2e\x41\xc9\x5d\x83\xe6", 16);

constexpr uint32_t kSliceB = 1; ///< of the slice types, modulo 5

/// Reads Exp-Golomb numbers; 0 past the end.
class BitReader {
public:
    explicit BitReader(std::string_view bytes) : m_bytes(bytes) {}
    uint32_t number() {
        int zeros = 0;
        while (zeros < 32 && m_bit < m_bytes.size() * 8 && bit() == 0) ++zeros;
        uint64_t value = 1;
        for (int i = 0; i < zeros; ++i) value = value * 2 + bit();
        return static_cast<uint32_t>(value - 1);
    }

private:
    uint32_t bit() {
        const size_t at = m_bit++;
        if (at / 8 >= m_bytes.size()) return 0;
        return static_cast<uint32_t>(static_cast<unsigned char>(m_bytes[at / 8]) >> (7 - at % 8)) & 1u;
    }
    std::string_view m_bytes;
    size_t m_bit = 0;
};

/// A slice header begins with the slice's first macroblock and its type. Emulation prevention can't reach
/// them: a first macroblock that large has no two zero bytes in front.
bool isBSlice(std::string_view unit) {
    if (nalType(unit) != nalSlice) return false;
    BitReader header(unit.substr(1));
    header.number();
    return header.number() % 5 == kSliceB;
}

void append(std::string& out, std::string_view unit) {
    out += kStartCode;
    out += unit;
}

} // namespace

std::vector<std::string_view> nalUnits(std::string_view annexB) {
    std::vector<std::string_view> units;
    size_t code = annexB.find(kShortStartCode);
    while (code != std::string_view::npos) {
        const size_t begin = code + kShortStartCode.size();
        code = annexB.find(kShortStartCode, begin);
        std::string_view unit = annexB.substr(begin, code == std::string_view::npos ? code : code - begin);
        // A unit never ends in a zero: the first byte of a 4-byte start code, or padding.
        while (!unit.empty() && unit.back() == '\0') unit.remove_suffix(1);
        if (!unit.empty()) units.push_back(unit);
    }
    return units;
}

bool isIPicture(std::string_view accessUnit) {
    const auto units = nalUnits(accessUnit);
    return std::any_of(units.begin(), units.end(),
                       [](std::string_view unit) { return nalType(unit) == nalIdrSlice; });
}

bool isBPicture(std::string_view accessUnit) {
    const auto units = nalUnits(accessUnit);
    return std::any_of(units.begin(), units.end(), isBSlice);
}

std::string nalUnit(uint8_t header, std::string_view payload) {
    std::string unit(1, static_cast<char>(header));
    int zeros = 0;
    for (const char byte : payload) {
        if (zeros == 2 && static_cast<unsigned char>(byte) <= 3) {
            unit += '\3';
            zeros = 0;
        }
        unit += byte;
        zeros = byte == '\0' ? zeros + 1 : 0;
    }
    return unit;
}

std::string textSei(std::string_view text) {
    std::string payload(1, kUserDataUnregistered);
    size_t size = kTextUuid.size() + text.size();
    for (; size >= 0xFF; size -= 0xFF) payload += '\xFF';
    payload += static_cast<char>(size);
    payload += kTextUuid;
    payload += text;
    payload += '\x80'; // stop bit
    return nalUnit(nalSei, payload);
}

std::string shaped(std::string_view accessUnit, std::string_view text) {
    const auto units = nalUnits(accessUnit);
    const bool iPicture = isIPicture(accessUnit);
    std::string out;
    out.reserve(accessUnit.size() + 256);
    const auto appendAll = [&](NalType type) {
        const size_t before = out.size();
        for (const std::string_view unit : units)
            if (nalType(unit) == type) append(out, unit);
        return out.size() != before;
    };
    if (iPicture) {
        if (!appendAll(nalSps) || !appendAll(nalPps))
            throw RecordingError("an I-picture comes before any SPS and PPS");
        if (out.size() > kMaxParameterSetBytes)
            throw RecordingError("its SPS and PPS take " + std::to_string(out.size()) +
                                 " bytes with their start codes, but playback hands over at most " +
                                 std::to_string(kMaxParameterSetBytes));
        if (!appendAll(nalSei)) append(out, textSei(text));
    }
    for (const std::string_view unit : units) {
        const NalType type = nalType(unit);
        const bool inFront = iPicture && (type == nalSps || type == nalPps || type == nalSei);
        if (!inFront && type != nalAccessUnitDelimiter) append(out, unit);
    }
    return out;
}

} // namespace h264
