#include "interop/index_gatherer.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace tesk::interop {

namespace {

using ChunkIndex = util::bam::BAMFileHandler::ChunkIndex;
using FileIndex = util::bam::BAMFileHandler::FileIndex;
using ReferenceIndex = util::bam::BAMFileHandler::ReferenceIndex;

constexpr std::uint16_t UNMAPPED_FLAG = 4;

// One window of the linear index covers 2^14 = 16,384 bases.
constexpr int WINDOW_SHIFT = 14;

bool share_block(std::uint64_t place, std::uint64_t other) {
    return place / BgzfWriter::PAYLOAD_BYTES == other / BgzfWriter::PAYLOAD_BYTES;
}

void add_to_chunks(std::vector<ChunkIndex>& chunks, std::uint64_t beg, std::uint64_t end) {
    if (!chunks.empty() && share_block(chunks.back().chunk_end, beg)) {
        chunks.back().chunk_end = end;
    } else {
        chunks.push_back({beg, end});
    }
}

// Makes the linear index reach to the last window of a record. The record is the
// first one in the windows that are new; those between the records before and this
// one repeat what precedes them.
void add_to_windows(std::vector<std::uint64_t>& ioffsets, RecordView record, std::uint64_t place) {
    std::int64_t const beg = std::max<std::int64_t>(record.pos(), 0);
    if (beg >= BAI_MAX_END) return;
    std::int64_t const last = std::min(std::max(record.end_pos() - 1, beg), BAI_MAX_END - 1);
    auto const first_window = static_cast<std::size_t>(beg >> WINDOW_SHIFT);
    auto const n_windows = static_cast<std::size_t>(last >> WINDOW_SHIFT) + 1;
    if (ioffsets.size() < first_window) {
        ioffsets.resize(first_window, ioffsets.empty() ? place : ioffsets.back());
    }
    if (ioffsets.size() < n_windows) ioffsets.resize(n_windows, place);
}

void use_virtual_offsets(ReferenceIndex& reference, BgzfWriter const& file) {
    reference.ref_beg = file.virtual_offset(reference.ref_beg);
    reference.ref_end = file.virtual_offset(reference.ref_end);
    for (auto& entry : reference.bins) {
        for (ChunkIndex& chunk : entry.second.chunks) {
            chunk.chunk_beg = file.virtual_offset(chunk.chunk_beg);
            chunk.chunk_end = file.virtual_offset(chunk.chunk_end);
        }
    }
    for (std::uint64_t& offset : reference.ioffsets) offset = file.virtual_offset(offset);
    reference.n_intv = static_cast<std::int32_t>(reference.ioffsets.size());
}

}  // namespace

IndexGatherer::IndexGatherer(std::int32_t n_references) { index_.n_ref = n_references; }

void IndexGatherer::add(RecordView record, std::uint64_t beg, std::uint64_t end) {
    if (record.refID() < 0) {
        ++index_.n_no_coor;
        return;
    }
    if (reference_ == nullptr || record.refID() != refID_) {
        refID_ = record.refID();
        reference_ = &index_.ref_indices[refID_];
        chunks_ = nullptr;
    }
    if (chunks_ == nullptr || record.bin() != bin_) {
        bin_ = record.bin();
        chunks_ = &reference_->bins[bin_].chunks;
    }
    ++((record.flag() & UNMAPPED_FLAG) != 0 ? reference_->n_unmapped : reference_->n_mapped);
    reference_->ref_beg = std::min(reference_->ref_beg, beg);
    reference_->ref_end = std::max(reference_->ref_end, end);
    add_to_chunks(*chunks_, beg, end);
    add_to_windows(reference_->ioffsets, record, beg);
}

FileIndex IndexGatherer::finish(BgzfWriter const& file) {
    for (auto& entry : index_.ref_indices) use_virtual_offsets(entry.second, file);
    reference_ = nullptr;
    return std::move(index_);
}

}  // namespace tesk::interop
