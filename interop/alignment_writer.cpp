#include "interop/alignment_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "interop/bgzf_writer.h"
#include "interop/byte_buffer.h"
#include "interop/index_gatherer.h"
#include "interop/output_stream.h"
#include "interop/record_codec.h"
#include "interop/report.h"

namespace tesk::interop {

namespace {

using util::bam::BAMFileHandler;
using FileIndex = BAMFileHandler::FileIndex;

constexpr std::string_view BAM_MAGIC_WORD("BAM\1", 4);

std::string cannot_write(std::string const& path, std::string const& reason) {
    return "cannot write to " + path + ": " + reason;
}

std::string system_message(int error_number) {
    return std::generic_category().message(error_number);
}

template <typename Number>
void append_number(std::string& bytes, Number value) {
    bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
}

// Magic, text and reference list, as a BAM file begins.
std::string encode_header(Header const& header, std::string const& text) {
    std::string bytes(BAM_MAGIC_WORD);
    append_number(bytes, static_cast<std::int32_t>(text.size()));  // l_text
    bytes += text;
    append_number(bytes, static_cast<std::int32_t>(header.references().size()));  // n_ref
    for (RefSeq const& reference : header.references()) {
        append_number(bytes, static_cast<std::int32_t>(reference.name.size() + 1));  // l_name
        bytes += reference.name;
        bytes += '\0';
        append_number(bytes, reference.length);  // l_ref
    }
    return bytes;
}

// Number of bytes of the BAI file that holds an index.
std::uint64_t bai_bytes(FileIndex const& index) {
    constexpr std::uint64_t FIXED_BYTES = 16;       // magic, n_ref, n_no_coor
    constexpr std::uint64_t REFERENCE_BYTES = 8;    // n_bin, n_intv
    constexpr std::uint64_t PSEUDO_BIN_BYTES = 40;  // a bin of two chunks
    constexpr std::uint64_t BIN_BYTES = 8;          // number, n_chunk
    constexpr std::uint64_t CHUNK_BYTES = 16;
    constexpr std::uint64_t WINDOW_BYTES = 8;
    std::uint64_t bytes = FIXED_BYTES + REFERENCE_BYTES * static_cast<std::uint64_t>(index.n_ref);
    for (auto const& [refID, reference] : index.ref_indices) {
        if (!reference.bins.empty()) bytes += PSEUDO_BIN_BYTES;
        for (auto const& [bin, bin_index] : reference.bins) {
            bytes += BIN_BYTES + CHUNK_BYTES * bin_index.chunks.size();
        }
        bytes += WINDOW_BYTES * reference.ioffsets.size();
    }
    return bytes;
}

// Writes an index and makes sure that all of it is there: the library does not
// notice when a disk is full. Returns the error message; empty for none.
std::string write_index(std::string const& path, FileIndex& index) {
    BAMFileHandler const library;
    errno = 0;
    if (!library.write_index_to_file(path, index)) {
        return cannot_write(path, errno != 0 ? system_message(errno) : library.error_message);
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return cannot_write(path, system_message(errno));
    if (static_cast<std::uint64_t>(status.st_size) != bai_bytes(index)) {
        return cannot_write(path, "not all of it could be written");
    }
    return {};
}

// A descriptor, perhaps with the duty to close it.
class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { close(); }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    void borrow(int fd) { fd_ = fd; }

    // Creates or replaces a file. False: errno says why.
    bool create(std::string const& path) {
        constexpr mode_t ALL_MAY_READ_AND_WRITE = 0666;  // as far as the umask lets them
        fd_ =
            ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, ALL_MAY_READ_AND_WRITE);
        owned_ = fd_ >= 0;
        return owned_;
    }

    int number() const { return fd_; }

    // Returns an error number, 0 for none. An interrupted close() has closed, too.
    int close() {
        if (!std::exchange(owned_, false)) return 0;
        return ::close(fd_) == 0 || errno == EINTR ? 0 : errno;
    }

private:
    int fd_ = -1;
    bool owned_ = false;
};

// Whether a record may follow another one in a file sorted by coordinate.
// Compared as unsigned, so that -1 (no reference) comes last.
class CoordinateOrder {
public:
    bool accepts(RecordView record) {
        auto const refID = static_cast<std::uint32_t>(record.refID());
        std::int32_t const pos = record.refID() < 0 ? 0 : record.pos();
        if (refID < refID_ || (refID == refID_ && pos < pos_)) return false;
        refID_ = refID;
        pos_ = pos;
        return true;
    }

private:
    std::uint32_t refID_ = 0;
    std::int32_t pos_ = std::numeric_limits<std::int32_t>::min();
};

}  // namespace

struct AlignmentWriter::State {
    State(WriterOptions writer_options, std::string const& file_path, Header const& file_header)
        : options(writer_options), path(file_path), header(file_header), codec(header, report) {
        if (options.format != Format::BAM) options.index = false;
    }

    bool is_bam() const { return options.format == Format::BAM; }

    // Stores the error message. Returns false, for `return fail(...)`.
    bool fail(std::string message) {
        error = std::move(message);
        return false;
    }

    bool check_header(std::string const& header_text);
    bool begin(std::string const& header_text);
    bool write_batch(std::string_view records);
    bool write_line(RecordView record);
    bool write_line(std::string const& line);
    bool write_lines(std::string_view more_lines);
    bool pass_on_text();
    bool check_records(std::string_view records);
    bool check_record(RecordView record, CoordinateOrder& next_order);
    bool encode(BAMFileHandler const& handler, ByteBuffer& records);
    bool encode_record(BAMFileHandler const& handler, BAMFileHandler::BamRecord const& record,
                       std::uint64_t number, ByteBuffer& records);
    bool write_bytes(std::string_view bytes);
    bool close();

    WriterOptions options;
    std::string path;
    Header const& header;
    Report report;  // of the codec; nobody asks for it
    RecordCodec codec;
    std::string error;         // once there is one, all is over
    bool is_under_way = true;  // a call; still so after one that ended by an exception
    Descriptor file;
    BgzfWriter bgzf;                   // of BAM
    std::optional<OutputStream> text;  // of SAM
    ByteBuffer lines;                  // rendered, and not passed on to `text` yet
    std::optional<IndexGatherer> index;
    CoordinateOrder order;
    std::uint64_t n_records = 0;  // written so far
    std::vector<char> encoded;    // one record of a handler
};

// What can be said against a file before it is made.
bool AlignmentWriter::State::check_header(std::string const& header_text) {
    constexpr std::size_t MAX_TEXT_BYTES = std::numeric_limits<std::int32_t>::max();
    if (is_bam() && header_text.size() > MAX_TEXT_BYTES) {
        return fail(cannot_write(path, "the header is too long for BAM"));
    }
    if (!options.index) return true;
    std::string message = bai_limit_error(path, header, 0, "");
    return message.empty() || fail(std::move(message));
}

bool AlignmentWriter::State::begin(std::string const& header_text) {
    if (!is_bam()) {
        text.emplace(file.number(), path);
        return write_lines(header_text);
    }
    if (options.index) index.emplace(static_cast<std::int32_t>(header.references().size()));
    if (!bgzf.open(file.number(), path, options.level, options.threads)) {
        return fail(bgzf.error_message);
    }
    return write_bytes(encode_header(header, header_text));
}

bool AlignmentWriter::State::write_bytes(std::string_view bytes) {
    return bgzf.write(bytes) || fail(bgzf.error_message);
}

bool AlignmentWriter::State::write_batch(std::string_view records) {
    if (!index) return write_bytes(records);
    if (!check_records(records)) return false;
    std::uint64_t place = bgzf.tell();
    if (!write_bytes(records)) return false;
    for_each_record(records, [&](RecordView record) {
        index->add(record, place, place + record.size());
        place += record.size();
    });
    return true;
}

bool AlignmentWriter::State::check_records(std::string_view records) {
    CoordinateOrder next_order = order;
    for (std::size_t at = 0; at < records.size();) {
        RecordView const record(records.data() + at);
        if (!check_record(record, next_order)) return false;
        at += record.size();
    }
    order = next_order;
    return true;
}

bool AlignmentWriter::State::check_record(RecordView record, CoordinateOrder& next_order) {
    if (!next_order.accepts(record)) {
        return fail(path + ": record " + std::string(record.read_name()) +
                    " is out of order: an index needs records sorted by coordinate");
    }
    if (record.refID() < 0) return true;
    std::int64_t const end = record.end_pos();
    return end <= BAI_MAX_END ||
           fail(bai_limit_error(path, header, end, std::string(record.read_name())));
}

bool AlignmentWriter::State::write_line(RecordView record) {
    codec.render_line(record, lines);
    return lines.size() < OutputStream::PIECE_BYTES || pass_on_text();
}

bool AlignmentWriter::State::write_line(std::string const& line) {
    lines.append(line);
    lines.append("\n");
    return lines.size() < OutputStream::PIECE_BYTES || pass_on_text();
}

bool AlignmentWriter::State::write_lines(std::string_view more_lines) {
    return pass_on_text() && (text->append(more_lines) || fail(text->error_message));
}

bool AlignmentWriter::State::pass_on_text() {
    if (!text->append(lines.view())) return fail(text->error_message);
    lines.clear();
    return true;
}

bool AlignmentWriter::State::encode(BAMFileHandler const& handler, ByteBuffer& records) {
    std::uint64_t number = n_records;
    for (BAMFileHandler::BamRecord const& record : handler.records) {
        if (!encode_record(handler, record, ++number, records)) return false;
    }
    return true;
}

bool AlignmentWriter::State::encode_record(BAMFileHandler const& handler,
                                           BAMFileHandler::BamRecord const& record,
                                           std::uint64_t number, ByteBuffer& records) {
    std::string const place = path + ": record " + std::to_string(number);
    try {
        if (!handler.serialise_bam_record_to_buffer(record, encoded)) {
            return fail(place + ": " + handler.error_message);
        }
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& exception) {
        return fail(place + ": " + exception.what());
    }
    // The library writes some records that nobody can read, such as those with names
    // of more than 254 characters.
    std::string_view const body = std::string_view(encoded.data(), encoded.size())
                                      .substr(sizeof(std::int32_t));  // without block_size
    if (codec.check_record(body, number, records)) return true;
    Fault const& fault = codec.fault();
    std::string message = place;
    if (!fault.column.empty()) message += ", column " + fault.column;
    return fail(message + ": " + fault.reason);
}

bool AlignmentWriter::State::close() {
    if (is_bam()) {
        if (!bgzf.close()) return fail(bgzf.error_message);
    } else if (!pass_on_text() || !text->flush()) {
        return fail(text->error_message);
    }
    if (int const error_number = file.close(); error_number != 0) {
        return fail(cannot_write(path, system_message(error_number)));
    }
    if (!index) return true;
    FileIndex gathered = index->finish(bgzf);
    std::string message = write_index(path + ".bai", gathered);
    return message.empty() || fail(std::move(message));
}

AlignmentWriter::AlignmentWriter(WriterOptions options) : options_(options) {}
AlignmentWriter::~AlignmentWriter() = default;

bool AlignmentWriter::finish_call(bool done) {
    state_->is_under_way = false;
    if (!done) error_message = state_->error;
    return done;
}

bool AlignmentWriter::begin_call() {
    if (!state_) {
        error_message = "cannot write: no file is open";
        return false;
    }
    if (state_->is_under_way) {
        state_->fail(cannot_write(state_->path, "an earlier call was not completed"));
    }
    if (!finish_call(state_->error.empty())) return false;
    state_->is_under_way = true;
    return true;
}

bool AlignmentWriter::open(std::string const& path, Header const& header,
                           std::string const& header_text) {
    state_ = std::make_unique<State>(options_, path, header);
    if (!state_->check_header(header_text)) return finish_call(false);
    if (!state_->file.create(path)) {
        return finish_call(state_->fail(cannot_write(path, system_message(errno))));
    }
    return finish_call(state_->begin(header_text));
}

bool AlignmentWriter::open(int fd, std::string const& path, Header const& header,
                           std::string const& header_text) {
    state_ = std::make_unique<State>(options_, path, header);
    if (!state_->check_header(header_text)) return finish_call(false);
    state_->file.borrow(fd);
    return finish_call(state_->begin(header_text));
}

bool AlignmentWriter::write(RecordBatch const& batch) {
    if (!begin_call()) return false;
    bool done = true;
    if (state_->is_bam()) {
        done = state_->write_batch(batch.records.view());
    } else if (!batch.lines.empty()) {
        done = state_->write_lines(batch.lines.view());
    } else {
        for_each_record(batch.records.view(),
                        [&](RecordView record) { done = done && state_->write_line(record); });
    }
    if (done) state_->n_records += batch.n_records;
    return finish_call(done);
}

bool AlignmentWriter::write(RecordView record) {
    if (!begin_call()) return false;
    bool const done = state_->is_bam() ? state_->write_batch({record.bytes(), record.size()})
                                       : state_->write_line(record);
    if (done) ++state_->n_records;
    return finish_call(done);
}

bool AlignmentWriter::write(BAMFileHandler const& handler) {
    if (!begin_call()) return false;
    bool done = true;
    if (state_->is_bam()) {
        ByteBuffer bytes;
        done = state_->encode(handler, bytes) && state_->write_batch(bytes.view());
    } else {
        for (BAMFileHandler::BamRecord const& record : handler.records) {
            done = done && state_->write_line(record.sam_line);
        }
    }
    if (done) state_->n_records += handler.records.size();
    return finish_call(done);
}

bool AlignmentWriter::close() {
    if (!begin_call()) return false;
    bool const done = finish_call(state_->close());
    state_.reset();
    return done;
}

std::string bai_limit_error(std::string const& path, Header const& header, std::int64_t max_end,
                            std::string const& max_name) {
    std::string const limit =
        "a BAI index cannot hold positions beyond " + std::to_string(BAI_MAX_END);
    auto const& references = header.references();
    auto const too_long =
        std::find_if(references.begin(), references.end(),
                     [](RefSeq const& reference) { return reference.length > BAI_MAX_END; });
    if (too_long != references.end()) {
        return path + ": reference " + too_long->name + " has " + std::to_string(too_long->length) +
               " bases; " + limit;
    }
    if (max_end <= BAI_MAX_END) return {};
    return path + ": record " + max_name + " ends at " + std::to_string(max_end) + "; " + limit;
}

}  // namespace tesk::interop
