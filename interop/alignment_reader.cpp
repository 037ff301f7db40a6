#include "interop/alignment_reader.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <limits>
#include <string_view>
#include <tuple>
#include <utility>

#include "interop/byte_buffer.h"
#include "interop/input_stream.h"
#include "interop/record_codec.h"

namespace tesk::interop {

namespace {

constexpr std::string_view BAM_MAGIC("BAM\x01", 4);
constexpr std::size_t MAX_LINE_BYTES = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t BLOCK_SIZE_BYTES = sizeof(std::uint32_t);
constexpr std::size_t MIN_BLOCK_SIZE = 32;  // the fields of fixed width
constexpr std::size_t MAX_BLOCK_SIZE = RecordCodec::MAX_RECORD_BYTES - BLOCK_SIZE_BYTES;

// What became of a step that takes something from the input.
enum class Step { TAKEN, END, FAULT };

template <typename T>
T number_at(char const* place) {
    T value;
    std::memcpy(&value, place, sizeof value);
    return value;
}

// Windows ends its lines in two bytes.
bool is_blank(std::string_view line) { return line.empty() || line == "\r"; }

// --- Unpacked bytes ------------------------------------------------------------

// The unpacked bytes of an input, with a place in them. Members that can fail
// return false; the stream has the reason.
class Bytes {
public:
    InputStream stream;

    /// Keeps account from now on of where blocks begin, for seek() and has_reached().
    void track_blocks() { tracks_blocks_ = true; }

    std::size_t n_left() const { return buffer_.size() - at_; }
    char const* here() const { return buffer_.data() + at_; }
    void take(std::size_t n) { at_ += n; }

    bool want(std::size_t n);
    bool find_newline(std::size_t limit, char const*& newline);
    bool seek(std::uint64_t virtual_offset, bool& found);
    bool has_reached(std::uint64_t virtual_offset);

private:
    struct BlockPlace {
        std::uint64_t place;   // of its first byte, counted in unpacked bytes
        std::uint64_t offset;  // in the file
    };

    bool more();

    ByteBuffer buffer_;
    std::size_t at_ = 0;        // what comes before it has been taken
    std::size_t searched_ = 0;  // from `at_` to here there is no '\n'
    bool ended_ = false;
    bool tracks_blocks_ = false;
    std::uint64_t n_dropped_ = 0;    // bytes that stood before those in the buffer
    std::deque<BlockPlace> blocks_;  // the one with the place in it, and later ones
};

// Appends the next bytes. What was taken is dropped once it is the greater part, so
// that no byte is moved often, however long a line or record is.
bool Bytes::more() {
    if (at_ >= n_left()) {
        buffer_.drop_front(at_);
        n_dropped_ += at_;
        searched_ -= std::min(searched_, at_);
        at_ = 0;
    }
    std::size_t const size_before = buffer_.size();
    if (!stream.read(buffer_)) return false;
    ended_ = buffer_.size() == size_before;
    if (tracks_blocks_ && !ended_) {
        blocks_.push_back({n_dropped_ + size_before, stream.block_offset()});
    }
    return true;
}

// Tries to have n bytes; there are fewer at the end alone.
bool Bytes::want(std::size_t n) {
    while (n_left() < n && !ended_) {
        if (!more()) return false;
    }
    return true;
}

// Gets bytes up to the next '\n', or to the end, or until there are more than
// `limit` without it: `newline` is null then.
bool Bytes::find_newline(std::size_t limit, char const*& newline) {
    for (;;) {
        searched_ = std::max(searched_, at_);
        std::size_t const n = buffer_.size() - searched_;
        void const* const found =
            n == 0 ? nullptr : std::memchr(here() + (searched_ - at_), '\n', n);
        newline = static_cast<char const*>(found);
        if (newline != nullptr) return true;
        searched_ = buffer_.size();
        if (ended_ || n_left() > limit) return true;
        if (!more()) return false;
    }
}

// Goes to a place of the file; `found` says whether there is one.
bool Bytes::seek(std::uint64_t virtual_offset, bool& found) {
    std::uint64_t const block = virtual_offset >> 16;
    std::size_t const in_block = virtual_offset & 0xFFFF;
    buffer_.clear();
    blocks_.clear();
    at_ = searched_ = 0;
    ended_ = false;
    found = true;
    if (!stream.seek(block)) return false;
    if (in_block == 0) return true;
    if (!more()) return false;
    found = !ended_ && stream.block_offset() == block && in_block <= buffer_.size();
    if (found) at_ = in_block;
    return true;
}

// Whether the place is at or behind a virtual offset. One at the end of a block may
// be too early for an offset that names the beginning of the next.
bool Bytes::has_reached(std::uint64_t virtual_offset) {
    std::uint64_t const place = n_dropped_ + at_;
    while (blocks_.size() > 1 && blocks_[1].place <= place) blocks_.pop_front();
    if (blocks_.empty()) return false;
    std::uint64_t const in_block = place - blocks_.front().place;
    return std::make_tuple(blocks_.front().offset, in_block) >=
           std::make_tuple(virtual_offset >> 16, virtual_offset & 0xFFFF);
}

// --- Regions -------------------------------------------------------------------

// Regions in order, apart from each other.
class Selection {
public:
    explicit Selection(std::vector<Region> const& regions);

    std::vector<Region> const& regions() const { return regions_; }
    bool overlaps(RecordView record) const;
    bool is_before(RecordView record) const;

private:
    static bool is_less(Region const& a, Region const& b) {
        return std::tie(a.refID, a.beg) < std::tie(b.refID, b.beg);
    }

    std::vector<Region> regions_;
};

Selection::Selection(std::vector<Region> const& regions) {
    std::vector<Region> sorted;
    for (Region const& region : regions) {
        if (region.refID >= 0 && region.beg < region.end) sorted.push_back(region);
    }
    std::sort(sorted.begin(), sorted.end(), is_less);
    for (Region const& region : sorted) {
        bool const joins = !regions_.empty() && regions_.back().refID == region.refID &&
                           regions_.back().end >= region.beg;
        if (joins) {
            regions_.back().end = std::max(regions_.back().end, region.end);
        } else {
            regions_.push_back(region);
        }
    }
}

bool Selection::overlaps(RecordView record) const {
    std::int64_t const pos = record.pos();
    auto const first =
        std::partition_point(regions_.begin(), regions_.end(), [&](Region const& region) {
            return region.refID < record.refID() ||
                   (region.refID == record.refID() && region.end <= pos);
        });
    return first != regions_.end() && first->refID == record.refID() &&
           first->beg < record.end_pos();
}

// Whether all regions end before a record begins; a record without reference comes
// last in a sorted file.
bool Selection::is_before(RecordView record) const {
    if (regions_.empty() || record.refID() < 0) return true;
    Region const& last = regions_.back();
    return record.refID() > last.refID ||
           (record.refID() == last.refID && record.pos() >= last.end);
}

}  // namespace

struct AlignmentReader::State {
    explicit State(ReaderOptions given) : options(given) {}

    template <typename Call>
    bool complete(Call const& call);
    bool fail(std::string message);
    bool fail_at(std::string const& place, std::string const& reason);
    Step fault(std::string const& reason);
    Step refuse(Fault const& fault);
    std::string here(std::uint64_t place_number) const;

    bool open(std::string const& path);
    bool read_sam_header();
    bool collect_header_lines(std::string& text);
    bool is_blank_line_next() const;
    bool check_first_bytes();
    bool read_bam_header();
    bool want_header(std::size_t n);
    bool read_header_number(std::int32_t& value, char const* what);
    bool read_reference(std::size_t n, std::vector<RefSeq>& list);

    bool select(std::vector<Region> const& regions, IndexReader const* index);
    Step to_chunk();

    bool fill(RecordBatch& batch, bool with_lines);
    bool is_full(RecordBatch const& batch) const;
    Step next_line(std::string_view& line);
    Step add_line(RecordBatch& batch, bool with_lines);
    Step next_record(std::string_view& body);
    Step add_record(RecordBatch& batch);
    bool finish();

    bool prepare(util::bam::BAMFileHandler& handler);
    bool fill(util::bam::BAMFileHandler& handler);
    bool hand_over(util::bam::BAMFileHandler& handler);

    ReaderOptions options;
    Bytes bytes;
    Format format = Format::SAM;
    Header header;
    Report report;
    std::unique_ptr<RecordCodec> codec;
    std::uint64_t number = 0;  // of the line or record that was taken last
    bool over = true;
    bool failed = false;  // also during a call, which an exception may end
    std::string error;

    std::unique_ptr<Selection> selection;  // null: all records
    bool by_index = false;
    std::vector<ChunkIndex> chunks;  // to be read, the first one last
    bool in_chunk = false;
    std::uint64_t chunk_end = 0;

    RecordBatch batch;  // on its way to a handler
    ByteBuffer text;    // of one of its records
    bool handler_used = false;
};

// --- Errors --------------------------------------------------------------------

// Makes a call, unless one before it has failed. Returns what it returns.
template <typename Call>
bool AlignmentReader::State::complete(Call const& call) {
    if (failed) {
        bool const says_why = !error.empty();
        return !says_why && fail(bytes.stream.name() + ": an earlier call was not completed");
    }
    failed = true;
    failed = !call();
    return !failed;
}

bool AlignmentReader::State::fail(std::string message) {
    error = std::move(message);
    report.add_error(error);
    failed = true;
    return false;
}

bool AlignmentReader::State::fail_at(std::string const& place, std::string const& reason) {
    return fail(bytes.stream.name() + ": " + place + ": " + reason);
}

// A line or record by its number, as messages have it.
std::string AlignmentReader::State::here(std::uint64_t place_number) const {
    Place::Unit const unit = format == Format::SAM ? Place::Unit::LINE : Place::Unit::RECORD;
    return Place{unit, place_number}.text();
}

// The input is damaged at the line or record that was taken last: there is no way on.
Step AlignmentReader::State::fault(std::string const& reason) {
    fail_at(here(number), reason);
    return Step::FAULT;
}

// The line or record that was taken last is not valid.
Step AlignmentReader::State::refuse(Fault const& why) {
    std::string const column = why.column.empty() ? "" : ", column " + why.column;
    std::string const place = here(number) + column;
    if (options.keep_going) {
        report.add_error(bytes.stream.name() + ": " + place + ": " + why.reason);
        return Step::TAKEN;
    }
    fail_at(place, why.reason);
    return Step::FAULT;
}

// --- Opening, and the header ---------------------------------------------------

bool AlignmentReader::State::open(std::string const& path) {
    if (!bytes.stream.open(path) || !bytes.want(BAM_MAGIC.size())) {
        return fail(bytes.stream.error_message);
    }
    bool const is_bam = bytes.n_left() >= BAM_MAGIC.size() &&
                        std::string_view(bytes.here(), BAM_MAGIC.size()) == BAM_MAGIC;
    format = is_bam ? Format::BAM : Format::SAM;
    if (!(is_bam ? read_bam_header() : read_sam_header())) return false;
    codec = std::make_unique<RecordCodec>(header, report);
    over = false;
    return true;
}

bool AlignmentReader::State::read_sam_header() {
    std::string lines;
    if (!collect_header_lines(lines)) return false;
    if (lines.empty() && !check_first_bytes()) return false;
    std::string reason;
    return header.assign_sam(lines, report, reason) || fail(bytes.stream.name() + ": " + reason);
}

// Blank lines belong to the header where one of its lines follows.
bool AlignmentReader::State::collect_header_lines(std::string& text_lines) {
    std::size_t n_blank = 0;
    for (;;) {
        if (!bytes.want(2)) return fail(bytes.stream.error_message);
        bool const blank = is_blank_line_next();
        if (!blank && (bytes.n_left() == 0 || *bytes.here() != '@')) return true;
        std::string_view line;
        if (next_line(line) != Step::TAKEN) return false;
        if (blank) {
            ++n_blank;
            continue;
        }
        text_lines.append(std::exchange(n_blank, 0), '\n');
        text_lines.append(line);
        text_lines += '\n';
    }
}

// Two bytes, or all that are left, are there.
bool AlignmentReader::State::is_blank_line_next() const {
    std::string_view const next(bytes.here(), std::min<std::size_t>(bytes.n_left(), 2));
    return !next.empty() && (next.front() == '\n' || next == "\r" || next == "\r\n");
}

// Data of another kind should not be searched for the end of its first line.
bool AlignmentReader::State::check_first_bytes() {
    for (std::size_t i = 0; i < bytes.n_left(); ++i) {
        auto const byte = static_cast<unsigned char>(bytes.here()[i]);
        if (byte == '\t' || byte == '\n' || byte == '\r') break;
        if (byte < ' ' || byte > '~') return fail_at(here(number + 1), "neither SAM nor BAM data");
    }
    return true;
}

// The counts are claims: memory grows only with the bytes that are there.
bool AlignmentReader::State::read_bam_header() {
    bytes.take(BAM_MAGIC.size());
    std::int32_t l_text = 0;
    if (!read_header_number(l_text, "l_text")) return false;
    auto const n_text_bytes = static_cast<std::size_t>(l_text);
    if (!want_header(n_text_bytes)) return false;
    std::string const lines(bytes.here(), n_text_bytes);
    bytes.take(n_text_bytes);
    std::int32_t n_ref = 0;
    if (!read_header_number(n_ref, "n_ref")) return false;
    std::vector<RefSeq> list;
    for (std::size_t i = 0; i < static_cast<std::size_t>(n_ref); ++i) {
        if (!read_reference(i + 1, list)) return false;
    }
    std::string reason;
    return header.assign_bam(lines, std::move(list), report, reason) ||
           fail(bytes.stream.name() + ": " + reason);
}

bool AlignmentReader::State::want_header(std::size_t n) {
    if (!bytes.want(n)) return fail(bytes.stream.error_message);
    return bytes.n_left() >= n || fail(bytes.stream.name() + ": the file ends inside its header");
}

bool AlignmentReader::State::read_header_number(std::int32_t& value, char const* what) {
    if (!want_header(sizeof value)) return false;
    value = number_at<std::int32_t>(bytes.here());
    bytes.take(sizeof value);
    return value >= 0 || fail_at("header", std::string(what) + " is " + std::to_string(value));
}

bool AlignmentReader::State::read_reference(std::size_t n, std::vector<RefSeq>& list) {
    RefSeq reference;
    std::int32_t l_name = 0;
    if (!read_header_number(l_name, "l_name")) return false;
    auto const n_name_bytes = static_cast<std::size_t>(l_name);
    if (!want_header(n_name_bytes)) return false;
    std::string_view const name(bytes.here(), n_name_bytes);
    if (name.empty() || name.find('\0') != name.size() - 1) {
        return fail_at("header", "the name of reference " + std::to_string(n) +
                                     " does not end with its NUL byte");
    }
    reference.name = name.substr(0, name.size() - 1);
    bytes.take(n_name_bytes);
    if (!read_header_number(reference.length, "l_ref")) return false;
    list.push_back(std::move(reference));
    return true;
}

// --- Regions -------------------------------------------------------------------

bool AlignmentReader::State::select(std::vector<Region> const& regions, IndexReader const* index) {
    selection = std::make_unique<Selection>(regions);
    if (index == nullptr) return true;
    std::string const& name = bytes.stream.name();
    if (format != Format::BAM || bytes.stream.packing() != InputStream::Packing::BGZF) {
        return fail(name + ": no BAM file in blocks, so it cannot be read by an index");
    }
    if (index->n_references() != header.references().size()) {
        return fail(name + ": the index is of " + std::to_string(index->n_references()) +
                    " references, the header of " + std::to_string(header.references().size()));
    }
    for (Region const& region : selection->regions()) {
        index->chunks(region.refID, region.beg, region.end, chunks);
    }
    merge_chunks(chunks);
    std::reverse(chunks.begin(), chunks.end());
    bytes.track_blocks();
    by_index = true;
    return true;
}

// Goes to the next record in a chunk.
Step AlignmentReader::State::to_chunk() {
    for (;;) {
        if (in_chunk && !bytes.has_reached(chunk_end)) {
            if (!bytes.want(1)) {
                fail(bytes.stream.error_message);
                return Step::FAULT;
            }
            // Here the file ends, so the end can be checked after all.
            if (bytes.n_left() == 0 && !finish()) return Step::FAULT;
            if (bytes.n_left() != 0 && !bytes.has_reached(chunk_end)) return Step::TAKEN;
        }
        in_chunk = false;
        if (chunks.empty()) return Step::END;
        bool found = false;
        if (!bytes.seek(chunks.back().chunk_beg, found)) {
            fail(bytes.stream.error_message);
            return Step::FAULT;
        }
        if (!found) {
            fail(bytes.stream.name() + ": the index names a place that the file does not have");
            return Step::FAULT;
        }
        in_chunk = true;
        chunk_end = chunks.back().chunk_end;
        chunks.pop_back();
    }
}

// --- Batches -------------------------------------------------------------------

bool AlignmentReader::State::is_full(RecordBatch const& records) const {
    return records.n_records != 0 && (records.n_records >= options.batch_records ||
                                      records.records.size() >= options.batch_bytes);
}

bool AlignmentReader::State::fill(RecordBatch& records, bool with_lines) {
    records.clear();
    while (!over && !is_full(records)) {
        Step const step =
            format == Format::SAM ? add_line(records, with_lines) : add_record(records);
        if (step == Step::FAULT) return false;
        if (step == Step::TAKEN) continue;
        over = true;
        if (!by_index) return finish();
    }
    return true;
}

// Lines end at '\n' alone; the last one may lack it.
Step AlignmentReader::State::next_line(std::string_view& line) {
    char const* newline = nullptr;
    if (!bytes.find_newline(MAX_LINE_BYTES, newline)) {
        fail(bytes.stream.error_message);
        return Step::FAULT;
    }
    if (newline == nullptr && bytes.n_left() == 0) return Step::END;
    ++number;
    std::size_t const n =
        newline == nullptr ? bytes.n_left() : static_cast<std::size_t>(newline - bytes.here());
    if (n > MAX_LINE_BYTES) {
        return fault("longer than " + std::to_string(MAX_LINE_BYTES) + " bytes");
    }
    line = {bytes.here(), n};
    bytes.take(newline == nullptr ? n : n + 1);
    return Step::TAKEN;
}

Step AlignmentReader::State::add_line(RecordBatch& records, bool with_lines) {
    std::string_view line;
    Step const step = next_line(line);
    if (step != Step::TAKEN || is_blank(line)) return step;
    if (line.front() == '@') return refuse({"", "header line after the first alignment"});
    std::size_t const n_record_bytes = records.records.size();
    std::size_t const n_line_bytes = records.lines.size();
    ByteBuffer* const lines = with_lines ? &records.lines : nullptr;
    if (!codec->encode_line(line, number, records.records, lines)) return refuse(codec->fault());
    if (selection && !selection->overlaps(RecordView(records.records.data() + n_record_bytes))) {
        records.records.cut(n_record_bytes);
        records.lines.cut(n_line_bytes);
        return Step::TAKEN;
    }
    ++records.n_records;
    return Step::TAKEN;
}

Step AlignmentReader::State::next_record(std::string_view& body) {
    if (by_index) {
        Step const step = to_chunk();
        if (step != Step::TAKEN) return step;
    }
    bool can_read = bytes.want(BLOCK_SIZE_BYTES);
    if (can_read && bytes.n_left() == 0) return Step::END;
    ++number;
    std::size_t block_size = 0;
    if (can_read && bytes.n_left() >= BLOCK_SIZE_BYTES) {
        block_size = number_at<std::uint32_t>(bytes.here());
        if (block_size < MIN_BLOCK_SIZE || block_size > MAX_BLOCK_SIZE) {
            return fault("block_size " + std::to_string(block_size) + " is out of range");
        }
        can_read = bytes.want(BLOCK_SIZE_BYTES + block_size);
    }
    if (!can_read) {
        fail(bytes.stream.error_message);
        return Step::FAULT;
    }
    if (bytes.n_left() < BLOCK_SIZE_BYTES + block_size) return fault("the file ends inside it");
    body = {bytes.here() + BLOCK_SIZE_BYTES, block_size};
    bytes.take(BLOCK_SIZE_BYTES + block_size);
    return Step::TAKEN;
}

Step AlignmentReader::State::add_record(RecordBatch& records) {
    std::string_view body;
    Step const step = next_record(body);
    if (step != Step::TAKEN) return step;
    std::size_t const n_record_bytes = records.records.size();
    if (!codec->check_record(body, number, records.records)) return refuse(codec->fault());
    if (selection) {
        RecordView const record(records.records.data() + n_record_bytes);
        bool const past_all = by_index && selection->is_before(record);
        if (!selection->overlaps(record)) {
            records.records.cut(n_record_bytes);
            return past_all ? Step::END : Step::TAKEN;
        }
    }
    ++records.n_records;
    return Step::TAKEN;
}

// Checks the end of the file.
bool AlignmentReader::State::finish() {
    if (bytes.stream.has_eof_block()) return true;
    if (!options.allow_missing_eof) {
        return fail(bytes.stream.name() +
                    ": the block that marks the end of a BGZF file is missing: the file may have "
                    "been cut short");
    }
    // By an index the end may be met more than once.
    if (report.of(Warning::MISSING_EOF_BLOCK).count == 0) {
        report.add(Warning::MISSING_EOF_BLOCK, Place{});
    }
    return true;
}

// --- Batches for a handler -----------------------------------------------------

// Lets a handler have the header of the file, once.
bool AlignmentReader::State::prepare(util::bam::BAMFileHandler& handler) {
    handler.records.clear();
    bool const is_same = handler_used && handler.header == header.text() &&
                         handler.references.size() == header.references().size();
    if (is_same) return true;
    handler_used = true;
    handler.reset();
    return handler.add_header_lines(header.text()) ||
           fail(bytes.stream.name() + ": " + handler.error_message);
}

// Those before a fault are handed over, too.
bool AlignmentReader::State::fill(util::bam::BAMFileHandler& handler) {
    if (codec && !prepare(handler)) return false;
    bool const filled = fill(batch, true);
    return hand_over(handler) && filled;
}

bool AlignmentReader::State::hand_over(util::bam::BAMFileHandler& handler) {
    std::string_view lines = batch.lines.view();
    bool done = true;
    handler.records.reserve(batch.n_records);
    for_each_record(batch.records.view(), [&](RecordView record) {
        if (!done) return;
        std::string_view line = lines.substr(0, lines.find('\n'));
        if (format == Format::SAM) {
            lines.remove_prefix(line.size() + 1);
        } else {
            text.clear();
            codec->render_line(record, text);
            line = text.view().substr(0, text.size() - 1);
        }
        std::string reason;
        done = codec->hand_over(record, line, handler, reason) ||
               fail_at("record " + std::string(record.read_name()), reason);
        // A handler has records without CIGAR cover one base where they come from
        // text, and none where they come from BAM.
        bool const is_bare = done && format == Format::SAM && record.n_cigar_op() == 0;
        if (is_bare) handler.records.back().ref_length = 1;
    });
    return done;
}

// --- The members ---------------------------------------------------------------

AlignmentReader::AlignmentReader(ReaderOptions options)
    : state_(std::make_unique<State>(options)) {}
AlignmentReader::~AlignmentReader() = default;

bool AlignmentReader::open(std::string const& path) {
    state_->failed = true;  // what was open is so no longer
    state_ = std::make_unique<State>(state_->options);
    if (state_->complete([&] { return state_->open(path); })) return true;
    error_message = state_->error;
    return false;
}

std::string const& AlignmentReader::name() const { return state_->bytes.stream.name(); }
Format AlignmentReader::format() const { return state_->format; }
Header const& AlignmentReader::header() const { return state_->header; }
Report const& AlignmentReader::report() const { return state_->report; }
std::uint64_t AlignmentReader::bytes_read() const { return state_->bytes.stream.bytes_read(); }

bool AlignmentReader::select(std::vector<Region> const& regions, IndexReader const* index) {
    if (state_->complete([&] { return state_->select(regions, index); })) return true;
    error_message = state_->error;
    return false;
}

bool AlignmentReader::read_batch(RecordBatch& batch) {
    batch.clear();
    bool const with_lines = state_->options.keep_lines;
    if (state_->complete([&] { return state_->fill(batch, with_lines); })) return true;
    error_message = state_->error;
    return false;
}

bool AlignmentReader::read_batch(util::bam::BAMFileHandler& handler) {
    handler.records.clear();
    if (state_->complete([&] { return state_->fill(handler); })) return true;
    error_message = state_->error;
    return false;
}

}  // namespace tesk::interop
