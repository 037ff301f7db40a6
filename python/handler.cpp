// BAMFileHandler, and the list of its references.

#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "python/records.h"

namespace tesk::python {

namespace {

using RefSeq = BAMFileHandler::RefSeq;
using Path = std::filesystem::path;

constexpr char const* OUT_OF_RANGE = "alignment sam index out of range!";

// --- References ----------------------------------------------------------------

// A list that is looked up in the handler at each access.
struct RefSeqList {
    std::shared_ptr<Handler> handler;
};

std::vector<RefSeq>& references_of(RefSeqList const& list) {
    return list.handler->library().references;
}

RefSeq make_reference(Text const& name, py::handle length) {
    if (name.bytes.empty() || name.bytes.find_first_of({"\0\t\n ", 4}) != std::string::npos) {
        raise(PyExc_ValueError, "name: one word is needed");
    }
    return {name.bytes, checked<std::int32_t>("length", length)};
}

bool is_equal(RefSeq const& a, RefSeq const& b) { return a.name == b.name && a.length == b.length; }

void bind_references(py::module_& module) {
    py::class_<RefSeq>(module, "RefSeq", R"(RefSeq(name, length)
--

One reference sequence. It does not change.

Raises ValueError for a name that is no word, OverflowError for a length beyond 32 bits.)")
        .def(py::init(&make_reference), py::arg("name"), py::arg("length"),
             "__init__(self, name, length)\n--\n\nA reference of these two.")
        .def_property_readonly(
            "name", [](RefSeq const& self) { return to_str(self.name); }, "SN.")
        .def_property_readonly(
            "length", [](RefSeq const& self) { return self.length; }, "LN, in bases.")
        .def(
            "__eq__",
            [](RefSeq const& self, py::handle other) -> py::object {
                if (!py::isinstance<RefSeq>(other)) {
                    return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                }
                return py::bool_(is_equal(self, py::cast<RefSeq const&>(other)));
            },
            "__eq__(self, value, /)\n--\n\nWhether name and length are the same.")
        .def(
            "__hash__",
            [](RefSeq const& self) {
                return py::hash(py::make_tuple(to_str(self.name), self.length));
            },
            "__hash__(self)\n--\n\nEqual references have the same.")
        .def(
            "__repr__",
            [](RefSeq const& self) {
                return to_str("RefSeq('" + self.name + "', " + std::to_string(self.length) + ")");
            },
            "__repr__(self)\n--\n\nThe call that makes the reference.");

    py::class_<RefSeqList>(module, "RefSeqList",
                           R"(The references of a handler, in @SQ order: a view of its list.

A record's refID is an index into it.)")
        .def(
            "__len__", [](RefSeqList const& list) { return references_of(list).size(); },
            "__len__(self)\n--\n\nNumber of references.")
        .def(
            "__getitem__",
            [](RefSeqList const& list, py::handle index) {
                Py_ssize_t const number = index_from(index);
                std::vector<RefSeq> const& references = references_of(list);
                return references[position_in(references.size(), number,
                                              "reference index out of range")];
            },
            R"(__getitem__(self, index, /)
--

The reference at a position. Raises IndexError "reference index out of range".)")
        .def(
            "__iter__",
            [](py::object const& self) {
                return py::reinterpret_steal<py::object>(PySeqIter_New(self.ptr()));
            },
            "__iter__(self)\n--\n\nGoes through the references.")
        .def(
            "append",
            [](RefSeqList const& list, RefSeq const& reference) {
                references_of(list).push_back(reference);
            },
            py::arg("reference"),
            "append(self, reference)\n--\n\nAdds a reference at the end; the header texts stay.");
}

// --- Files ---------------------------------------------------------------------

// A number that is malformed ends the parsing of a line with an exception; the record
// that was begun then stays in the list. It has no line yet.
template <typename Parse>
bool without_unfinished_record(BAMFileHandler& handler, Parse parse) {
    try {
        return parse();
    } catch (...) {
        auto& records = handler.records;
        if (!records.empty() && records.back().sam_line.empty()) records.pop_back();
        throw;
    }
}

void read_from_sam_file(Handler& self, Path const& path) {
    self.library();
    self.note_move();
    self.work([&](BAMFileHandler& handler) {
        return without_unfinished_record(handler,
                                         [&] { return handler.read_from_sam_file(path.string()); });
    });
}

void read_from_bam_file(Handler& self, Path const& path) {
    self.library();
    self.note_move();
    self.work([&](BAMFileHandler& handler) { return handler.read_from_bam_file(path.string()); });
}

void write_to_sam_file(Handler& self, Path const& path) {
    self.work([&](BAMFileHandler& handler) { return handler.write_to_sam_file(path.string()); });
}

// Files with an index must be written one after another.
void write_to_bam_file(Handler& self, Path const& path, bool write_index) {
    static std::mutex one_index_at_a_time;
    self.library();
    if (write_index) self.note_move();  // it may sort
    self.work([&](BAMFileHandler& handler) {
        std::unique_lock<std::mutex> lock(one_index_at_a_time, std::defer_lock);
        if (write_index) lock.lock();
        return handler.write_to_bam_file(path.string(), write_index);
    });
}

void sort(Handler& self) {
    self.library();
    self.note_move();
    self.work([](BAMFileHandler& handler) { return handler.sort(); });
}

// What the library prints goes to Python's standard output. The GIL stays taken, so
// that nothing else of Python's is caught.
void print_index_from_file(Handler& self, Path const& path) {
    BAMFileHandler& handler = self.library();
    struct Capture {
        std::ostringstream text;
        std::streambuf* const before = std::cout.rdbuf(text.rdbuf());
        ~Capture() { std::cout.rdbuf(before); }
    };
    bool done = false;
    std::string printed;
    {
        Capture const capture;
        done = handler.print_index_from_file(path.string());
        printed = capture.text.str();
    }
    std::string const error = handler.error_message;
    py::module_::import("sys").attr("stdout").attr("write")(to_str(printed));
    require(done, error);
}

// --- Members without files -----------------------------------------------------

void reset(Handler& self) {
    self.library().reset();
    self.note_move();
}

void add_header_lines(Handler& self, Text const& text) {
    BAMFileHandler& handler = self.library();
    require(handler.add_header_lines(text.bytes), handler.error_message);
}

void add_alignment_sam(Handler& self, Text const& line) {
    BAMFileHandler& handler = self.library();
    bool const done =
        without_unfinished_record(handler, [&] { return handler.add_alignment_sam(line.bytes); });
    require(done, handler.error_message);
}

Record parse_sam_line(Handler& self, Text const& line) {
    BAMFileHandler& handler = self.library();
    BamRecord record;
    require(handler.parse_sam_line_to_bam_record(line.bytes, record), handler.error_message);
    return Record(std::move(record));
}

void update_sam_line(Handler& self, Record const& record) {
    BAMFileHandler& handler = self.library();
    require(handler.update_sam_line(record.get()), handler.error_message);
}

py::str get_updated_header(Handler& self) {
    std::string text;
    self.library().get_updated_header(text);
    return to_str(text);
}

py::str get_alignment_sam(Handler& self, py::handle index) {
    Py_ssize_t const number = index_from(index);
    BAMFileHandler& handler = self.library();
    std::string line;
    // A negative number becomes one that is too large.
    require(handler.get_alignment_sam(static_cast<unsigned long>(number), line),
            handler.error_message);
    return to_str(line);
}

py::object get_item(Handler& self, py::handle index) {
    auto const line_at = [&](std::size_t place) {
        return to_str(self.library().records.at(place).sam_line);
    };
    if (!PySlice_Check(index.ptr())) {
        Py_ssize_t const number = index_from(index);
        return line_at(position_in(self.library().records.size(), number, OUT_OF_RANGE));
    }
    Py_ssize_t begin = 0;
    Py_ssize_t end = 0;
    Py_ssize_t step = 0;
    if (PySlice_Unpack(index.ptr(), &begin, &end, &step) != 0) throw py::error_already_set();
    auto const size = static_cast<Py_ssize_t>(self.library().records.size());
    Py_ssize_t const n = PySlice_AdjustIndices(size, &begin, &end, step);
    py::list lines;
    for (Py_ssize_t i = 0; i < n; ++i) {
        lines.append(line_at(static_cast<std::size_t>(begin + i * step)));
    }
    return std::move(lines);
}

unsigned short reg_to_bin(Handler& self, py::handle beg, py::handle end) {
    auto const first = checked<std::int32_t>("beg", beg);
    auto const last = checked<std::int32_t>("end", end);
    return self.library().reg_to_bin(first, last);
}

std::vector<unsigned short> reg_to_bins(Handler& self, py::handle beg, py::handle end) {
    auto const first = checked<std::int32_t>("beg", beg);
    auto const last = checked<std::int32_t>("end", end);
    std::vector<unsigned short> bins;
    self.library().reg_to_bins(first, last, bins);
    return bins;
}

// --- The class -----------------------------------------------------------------

using Class = py::class_<Handler, std::shared_ptr<Handler>>;

void bind_state(Class& bound) {
    bound.def_property_readonly("records", &make_record_list,
                                "The alignment records, in the order of adding until sorted.");
    bound.def_property_readonly(
        "references", [](std::shared_ptr<Handler> self) { return RefSeqList{std::move(self)}; },
        "The reference sequences. A file that read_from_bam_file() has read mostly has each\n"
        "of them twice: from the header text, then from its binary list.");
    bound.def_property_readonly(
        "header", [](Handler& self) { return to_str(self.library().header); },
        "Header text as read or added; SAM output begins with it.");
    bound.def_property_readonly(
        "header_lines", [](Handler& self) { return to_str(self.library().header_lines); },
        "The accepted @SQ, @RG, @PG and @CO lines, each with its newline.");
    bound.def_property_readonly(
        "has_sort_order", [](Handler& self) { return self.library().has_sort_order; },
        "Whether a definite order of the records is on record.");
    bound.def_property_readonly(
        "sort_order", [](Handler& self) { return to_str(self.library().sort_order); },
        "That order as an @HD fragment, such as \"\\tSO:coordinate\"; empty for none.");
    bound.def_property_readonly(
        "error_message", [](Handler& self) { return to_str(self.library().error_message); },
        "The library's message of the last failure: the text of the Error that was raised.");
    bound.def_property_readonly(
        "bytes_written", [](Handler& self) { return self.library().bytes_written; },
        "Size in bytes of the blocks that write_to_bam_file() wrote last: the file without\n"
        "the 28 bytes of its last block.");
}

void bind_file_members(Class& bound) {
    bound.def("read_from_sam_file", &read_from_sam_file, py::arg("path"),
              R"(read_from_sam_file(self, path)
--

Replaces everything held by the contents of a SAM file.

On an error what was read before the fault stays; an unfinished record does not.
Raises Error with one of
  "Cannot open file " + path
  "Could not parse header from SAM file " + path + " : " + the message of
      add_header_lines()
  "Could not parse alignment from SAM file " + path + " : " + the message of
      add_alignment_sam()
  "SAM file reported error on close " + path
and InvalidValueError as these two do.)");
    bound.def("write_to_sam_file", &write_to_sam_file, py::arg("path"),
              R"(write_to_sam_file(self, path)
--

Writes `header` and the records' SAM lines, as they stand.

Raises Error with one of
  "Cannot open SAM file : " + path
  "SAM file reported error on close " + path)");
    bound.def("read_from_bam_file", &read_from_bam_file, py::arg("path"),
              R"(read_from_bam_file(self, path)
--

Replaces everything held by the contents of a BAM file of less than 2 GiB.

On an error what was decoded before the fault stays. Raises Error with one of
  "Cannot open file " + path
  "Final BGZF block was not the EOF sequence as expected in file " + path +
      ". Perhaps the file is corrupt?"
  "BAM file reported error on close " + path
  "BAM file did not contain well formed header: " + path
  "Reached end of uncompressed BAM buffer unexpectedly while extracting data: "
      + "Hit end of BAM buffer while extracting data"
  "Invalid auxiliary data type found in alignment record in " + path
  "BAM file block length mismatch in file " + path
  "SAM line generation failed: " + the message of update_sam_line()
  a message of add_header_lines(), or of a damaged block
and InvalidTypeError for a record with an array of floats; sam_lines() takes these.)");
    bound.def("write_to_bam_file", &write_to_bam_file, py::arg("path"),
              py::arg("write_index") = false,
              R"(write_to_bam_file(self, path, write_index=False)
--

Writes a BAM file; on request with its index, as path + ".bai".

With an index it calls sort() first unless `sort_order` begins with
"\tSO:coordinate": call it yourself where lines that were added may be out of order.
An index is written by one thread at a time; others wait. On an error the partly
written file stays. Raises Error with one of
  "Cannot open file " + path
  "Hit end of BAM buffer while writing data"   an optional field of type s or S
  "BAM file reported error on close " + path
  "Could not write BAM index : " + "Cannot open index file " + path +
      ".bai for writing"
and InvalidValueError for a record that ends beyond the range of an index.)");
    bound.def("print_index_from_file", &print_index_from_file, py::arg("path"),
              R"(print_index_from_file(self, path)
--

Prints a BAI file in readable form to sys.stdout, in one piece.

On an error what came before it is printed. Raises Error with one of
  "Cannot open index file " + path
  "Encountered malformed BAI header in file " + path
  "Encountered malformed magic bin in index file " + path)");
}

void bind_other_members(Class& bound) {
    bound.def("reset", &reset,
              "reset(self)\n--\n\nEmpties header, sort order, references and records.");
    bound.def("sort", &sort, R"(sort(self)
--

Sorts the records by refID, those without one last, then by pos.

`sort_order` is then "\tSO:coordinate". Records equal in both keep their order.)");
    bound.def("add_header_lines", &add_header_lines, py::arg("text"),
              R"(add_header_lines(self, text)
--

Checks SAM header text, one or more lines, and files what it holds.

@SQ lines go into `references`, the order of @HD into `sort_order`, every line but @HD
into `header_lines`, the whole text into `header`. Raises Error with one of these, each
with the whole line at its end:
  "Multiple @HD lines encountered in header line: "
  "@HD lines encountered after first header line: "
  "Mandatory 'VN' field not found in @HD header line: "
  "Invalid field '" + word + "' encountered in @HD header line: "
  "Invalid 'VN' field '" + value + "' encountered in @HD header line: "
  "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: "
  "Unsupported 'SS' field encountered in @HD header line with VN < 1.6: "
  "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line: "
  "Invalid 'SO' field '" + value + "' encountered in @HD header line: "
  "Invalid 'GO' field '" + value + "' encountered in @HD header line: "
  "Malformed @SQ line encountered in header lines: "
  "Unsupported '" + type + "' line encountered in @HD header line with VN < 1.3: "
  "Invalid line encountered in header lines: "
and InvalidValueError "stoi" for an LN value that is no number or too large.)");
    bound.def("add_alignment_sam", &add_alignment_sam, py::arg("line"),
              R"(add_alignment_sam(self, line)
--

Parses one SAM alignment line, without line terminator, and appends the record.

POS and PNEXT are 1-based. `has_sort_order` is then false. On an error the records are
as before. Raises Error with "Sam to Bam parsing failed: " and a message of
parse_sam_line_to_bam_record(), and what else that raises.)");
    bound.def("parse_sam_line_to_bam_record", &parse_sam_line, py::arg("line"),
              R"(parse_sam_line_to_bam_record(self, line)
--

The record of one SAM alignment line, on its own.

References are looked up in this handler's: -1 for "*" and for names that are not
there. Raises Error with one of
  "Malformed SAM line detected"
  "Invalid aux data detected: " + field
  "Invalid auxiliary data type) '" + letter + "' found in alignment record in "
  "Invalid sequence code detected"
  "Hit end of BAM buffer while writing data"   no comma after an array's type
and InvalidValueError for a number of an optional field that is malformed or does not
fit 32 bits ("stoi", "stof").)");
    bound.def("update_sam_line", &update_sam_line, py::arg("record"),
              R"(update_sam_line(self, record)
--

Renders a record's `sam_line` from its other fields, with this handler's references.

Integers of every type become type i; floats have six decimals without trailing zeros.
Raises Error "Invalid next segment ref ID detected" where refID or next_refID is no
index into `references`, and InvalidTypeError for an array of floats.)");
    bound.def(
        "get_header", [](Handler& self) { return to_str(self.library().header); },
        "get_header(self)\n--\n\nThe header text: the same as `header`.");
    bound.def("get_updated_header", &get_updated_header,
              R"(get_updated_header(self)
--

The header that BAM output carries: @HD with VN:1.6 and the order on record, SO:unknown
where there is none, then `header_lines`.)");
    bound.def(
        "get_num_alignments", [](Handler& self) { return self.library().records.size(); },
        "get_num_alignments(self)\n--\n\nThe number of records.");
    bound.def("get_alignment_sam", &get_alignment_sam, py::arg("index"),
              R"(get_alignment_sam(self, index)
--

The SAM line of the record at a position, from 0, without line terminator.

Raises Error "alignment sam index out of range!", also below 0.)");
    bound.def("reg_to_bin", &reg_to_bin, py::arg("beg"), py::arg("end"),
              R"(reg_to_bin(self, beg, end)
--

Smallest index bin that holds a region, 0-based and half-open.

0 (everything) to 37448 (16,384 bases) for regions inside the first 2^29 bases;
unchecked outside them.)");
    bound.def("reg_to_bins", &reg_to_bins, py::arg("beg"), py::arg("end"),
              R"(reg_to_bins(self, beg, end)
--

All index bins that overlap a region, 0-based and half-open: level by level from the
coarsest, ascending within a level.)");
}

void bind_lines(Class& bound) {
    bound.def(
        "__len__", [](Handler& self) { return self.library().records.size(); },
        "__len__(self)\n--\n\nNumber of records.");
    bound.def("__getitem__", &get_item, R"(__getitem__(self, index, /)
--

The SAM line of the record at a position, or a list of those of a slice.

Raises IndexError "alignment sam index out of range!".)");
    bound.def(
        "__iter__",
        [](py::object const& self) {
            return py::reinterpret_steal<py::object>(PySeqIter_New(self.ptr()));
        },
        "__iter__(self)\n--\n\nGoes through the SAM lines of the records.");
    bound.def(
        "__repr__",
        [](Handler& self) {
            BAMFileHandler const& handler = self.library();
            return "<tesk_bam.BAMFileHandler: " + std::to_string(handler.references.size()) +
                   " references, " + std::to_string(handler.records.size()) + " records>";
        },
        "__repr__(self)\n--\n\nThe numbers of references and records.");
}

}  // namespace

void bind_handler(py::module_& module) {
    bind_references(module);
    Class bound(module, "BAMFileHandler", R"(BAMFileHandler()
--

A SAM header and the alignment records under it, and their way in and out.

As a sequence a handler has the SAM lines of its records: len(handler), handler[0],
`for line in handler`. Paths are str, bytes or os.PathLike.

Members raise Error with the library's message. While a file is read or written and
records are sorted, other threads run; what they do with the same handler, or with its
records, raises Error "The handler is in use by another thread".)");
    bound.def(py::init<>(), "__init__(self)\n--\n\nAn empty handler.");
    bind_state(bound);
    bind_file_members(bound);
    bind_other_members(bound);
    bind_lines(bound);
}

}  // namespace tesk::python
