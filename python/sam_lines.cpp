// The SAM lines of a file of any origin and size.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "interop/alignment_reader.h"
#include "interop/byte_buffer.h"
#include "interop/record_codec.h"
#include "python/records.h"

namespace tesk::python {

namespace {

using RefSeq = BAMFileHandler::RefSeq;

// Reads a file batch by batch, and hands its lines out one by one.
class LineSource {
public:
    LineSource(std::string const& path, interop::ReaderOptions options) : reader_(options) {
        if (!reader_.open(path)) {
            error_ = reader_.error_message;
            return;
        }
        if (reader_.format() == interop::Format::BAM) codec_.emplace(reader_.header(), rendered_);
    }

    /// Why the reading is over; empty without a fault.
    std::string const& error() const { return error_; }
    interop::AlignmentReader const& reader() const { return reader_; }

    /// The next line without '\n', good until the next call that reads.
    bool take(std::string_view& line) {
        if (left_.empty()) return false;
        std::size_t const size = left_.find('\n');
        line = left_.substr(0, size);
        left_.remove_prefix(size + 1);
        return true;
    }

    /// Reads the next lines; there are none at the end. After a fault those before it
    /// are to be taken first.
    void read() {
        if (!error_.empty()) return;
        if (!reader_.read_batch(batch_)) error_ = reader_.error_message;
        if (!codec_) {
            left_ = batch_.lines.view();
            return;
        }
        text_.clear();
        interop::for_each_record(batch_.records.view(), [&](interop::RecordView record) {
            codec_->render_line(record, text_);
        });
        left_ = text_.view();
    }

private:
    interop::AlignmentReader reader_;
    interop::Report rendered_;                   // of a codec that only renders: stays empty
    std::optional<interop::RecordCodec> codec_;  // of BAM
    interop::RecordBatch batch_;
    interop::ByteBuffer text_;  // lines of BAM records
    std::string_view left_;     // of the lines
    std::string error_;
};

// The iterator that Python has. All members belong to the thread that has the GIL.
class SamLines {
public:
    SamLines(std::filesystem::path const& path, bool allow_missing_eof, bool keep_going) {
        interop::ReaderOptions options;
        options.keep_lines = true;
        options.allow_missing_eof = allow_missing_eof;
        options.keep_going = keep_going;
        std::string const name = path.string();
        {
            py::gil_scoped_release const release;
            source_ = std::make_unique<LineSource>(name, options);
        }
        require(source_->error().empty(), source_->error());
    }

    py::str next() {
        LineSource& source = this->source();
        std::string_view line;
        if (!source.take(line)) {
            read(source);
            if (!source.take(line)) {
                require(source.error().empty(), source.error());
                throw py::stop_iteration();
            }
        }
        return to_str(line);
    }

    interop::AlignmentReader const& reader() { return source().reader(); }

    void close() {
        if (source_) source();
        source_.reset();
    }

private:
    LineSource& source() {
        if (!source_) raise(PyExc_ValueError, "The file is closed");
        if (is_in_use_) raise_error("The file is in use by another thread");
        return *source_;
    }

    // Other threads may run Python meanwhile.
    void read(LineSource& source) {
        InUse const in_use(is_in_use_);
        py::gil_scoped_release const release;
        source.read();
    }

    std::unique_ptr<LineSource> source_;
    bool is_in_use_ = false;
};

py::list strings(std::vector<std::string> const& texts) {
    py::list list;
    for (std::string const& text : texts) list.append(to_str(text));
    return list;
}

}  // namespace

void bind_sam_lines(py::module_& module) {
    py::class_<SamLines>(module, "SamLines",
                         R"(The SAM lines of a file, one after another; see sam_lines().

An iterator, and a context manager that closes the file. One thread at a time may use
it: others get Error "The file is in use by another thread". After close() every member
but close() raises ValueError "The file is closed".)")
        .def(
            "__iter__", [](py::object self) { return self; },
            "__iter__(self)\n--\n\nThe iterator itself.")
        .def("__next__", &SamLines::next,
             "__next__(self)\n--\n\nThe next line, without line terminator.")
        .def(
            "__enter__", [](py::object self) { return self; },
            "__enter__(self)\n--\n\nThe iterator itself.")
        .def(
            "__exit__", [](SamLines& self, py::args const&) { self.close(); },
            "__exit__(self, *args)\n--\n\nCloses the file.")
        .def("close", &SamLines::close, "close(self)\n--\n\nCloses the file.")
        .def_property_readonly(
            "header", [](SamLines& self) { return to_str(self.reader().header().text()); },
            "The header text, repaired: complete lines, with an @SQ line for each reference.")
        .def_property_readonly(
            "references",
            [](SamLines& self) { return std::vector<RefSeq>(self.reader().header().references()); },
            "The reference sequences, each once: a new list.")
        .def_property_readonly(
            "report", [](SamLines& self) { return strings(self.reader().report().lines()); },
            "What was repaired so far, and what looks doubtful: a new list with a line for\n"
            "each kind, with its count and first place.")
        .def_property_readonly(
            "errors", [](SamLines& self) { return strings(self.reader().report().errors()); },
            "The messages of the records that were left out, and of the fault that ended the\n"
            "reading: a new list of the first 100.");

    module.def(
        "sam_lines",
        [](std::filesystem::path const& path, bool allow_missing_eof, bool keep_going) {
            return std::make_unique<SamLines>(path, allow_missing_eof, keep_going);
        },
        py::arg("path"), py::kw_only(), py::arg("allow_missing_eof") = false,
        py::arg("keep_going") = false,
        R"(sam_lines(path, *, allow_missing_eof=False, keep_going=False)
--

Opens a file of any origin and size, and goes through its alignments as SAM lines.

SAM, compressed SAM and BAM are told apart by content; "-" is standard input. The file
is read in batches, so memory does not grow with it. What can be repaired without loss
is, and stands in the iterator's `report`; what is damaged raises Error that names file,
line or record and column, after the lines before it.

allow_missing_eof takes a file in blocks without its last block, which may have been cut
short; keep_going leaves out records that are not valid, and lists them in `errors`.

Raises Error with the message of the library tesk::interop, such as
  "cannot open " + path + ": No such file or directory"
  path + ": line 7, column QUAL: 3 qualities for 4 bases")");
}

}  // namespace tesk::python
