#include "interop/record_batch.h"

namespace tesk::interop {

std::int64_t RecordView::end_pos() const {
    char const* at = cigar();
    std::int64_t n_bases = 0;
    for (std::size_t i = 0; i < n_cigar_op(); ++i, at += sizeof(std::uint32_t)) {
        std::uint32_t op;
        std::memcpy(&op, at, sizeof op);
        bool const covers = (CIGAR_COVERS_REFERENCE >> (op & CIGAR_OP_MASK) & 1U) != 0;
        if (covers) n_bases += op >> CIGAR_OP_BITS;
    }
    return end_on_reference(pos(), n_bases);
}

}  // namespace tesk::interop
