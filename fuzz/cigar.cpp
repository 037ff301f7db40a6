// CIGAR text both ways: packed operations come back from their text; text that packs
// comes back from its operations, numbers apart, which lose signs and zeros.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::util::bam::BAMFileHandler;
using BamRecord = BAMFileHandler::BamRecord;
using Ops = std::vector<std::uint32_t>;

constexpr std::uint32_t N_CODES = 9;
constexpr std::size_t MAX_OPS = 65535;

std::string text_of(BAMFileHandler& handler, Ops const& ops) {
    std::string text;
    bool placeholder = false;
    tesk::fuzz::require(handler.unpack_cigar_string(ops.data(), ops.size(), text, 0, placeholder),
                        "operations have a text");
    return text;
}

struct Packed {
    Ops ops;
    unsigned long reference_length = 0;
};

Packed pack(BAMFileHandler& handler, std::string const& text) {
    BamRecord record;
    Packed packed;
    tesk::fuzz::require(
        handler.pack_cigar_string(text, record, packed.reference_length, text.size()),
        handler.error_message);
    packed.ops = record.cigar;
    return packed;
}

// The operations, added up one by one.
std::uint64_t reference_length_of(Ops const& ops) {
    std::uint64_t length = 0;
    for (std::uint32_t const op : ops) {
        if (std::string("MDN=X").find("MIDNSHP=X"[op % 16]) != std::string::npos) length += op / 16;
    }
    return length;
}

// Bytes as words, each with a code that an operation has.
void check_operations(BAMFileHandler& handler, std::uint8_t const* data, std::size_t size) {
    Ops ops(size / sizeof(std::uint32_t));
    if (ops.empty() || ops.size() > MAX_OPS) return;
    std::memcpy(ops.data(), data, ops.size() * sizeof ops[0]);
    for (std::uint32_t& op : ops) op = op / 16 * 16 + op % 16 % N_CODES;
    Packed const packed = pack(handler, text_of(handler, ops));
    tesk::fuzz::require(packed.ops == ops, "operations come back from their text");
    tesk::fuzz::require(packed.reference_length == reference_length_of(ops),
                        "the reference length is that of the operations");
}

// Whatever text it is: what it packs to has a text that packs to the same, unless a
// letter was unknown.
void check_text(BAMFileHandler& handler, std::string const& text) {
    Packed const packed = pack(handler, text);
    if (text == "*" || packed.ops.empty()) return;
    std::string const again = text_of(handler, packed.ops);
    if (again.find('?') != std::string::npos) return;
    tesk::fuzz::require(pack(handler, again).ops == packed.ops,
                        "a text packs as its operations do");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static BAMFileHandler handler;
    check_operations(handler, data, size);
    check_text(handler, std::string(reinterpret_cast<char const*>(data), size));
    return 0;
}
