#include "python/records.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "python/byte_array.h"

namespace tesk::python {

namespace {

constexpr std::string_view CIGAR_OP_CODES = "MIDNSHP=X";
constexpr std::uint32_t CIGAR_OP_BITS = 4;
constexpr std::uint32_t CIGAR_OP_MASK = 15;
constexpr std::int64_t MAX_OP_LENGTH = (1 << 28) - 1;
constexpr std::size_t MAX_NAME_BYTES = 254;  // l_read_name has eight bits, and counts the NUL
constexpr std::uint8_t MAX_QUALITY = 93;     // '~' in SAM text
constexpr char NO_QUALITY = '\xFF';

// The field codecs of the library, which use nothing of a handler but its tables. The
// GIL guards it.
BAMFileHandler& codec() {
    static BAMFileHandler handler;
    return handler;
}

// --- CIGAR ---------------------------------------------------------------------

// Operations of a long CIGAR stand in a CG field, where a placeholder says so.
BAMFileHandler::AuxNumericalArray const* find_long_cigar(BamRecord const& record) {
    bool is_placeholder = false;
    std::string text;
    codec().unpack_cigar_string(record.cigar.data(), std::min<std::size_t>(record.cigar.size(), 1),
                                text, static_cast<unsigned long>(record.l_seq), is_placeholder);
    if (!is_placeholder) return nullptr;
    for (auto const& field : record.aux_data) {
        if (field.tag == "CG" && field.type == 'B') {
            return boost::any_cast<BAMFileHandler::AuxNumericalArray>(&field.value);
        }
    }
    return nullptr;
}

// The operations, packed; those of a long CIGAR from its field.
std::vector<std::uint32_t> cigar_of(BamRecord const& record) {
    auto const* const array = find_long_cigar(record);
    if (array == nullptr) return record.cigar;
    std::vector<std::uint32_t> ops(array->data.size() / sizeof(std::uint32_t));
    if (!ops.empty()) std::memcpy(ops.data(), array->data.data(), ops.size() * sizeof ops[0]);
    return ops;
}

std::string cigar_text(std::vector<std::uint32_t> const& ops) {
    std::string text;
    bool is_placeholder = false;
    codec().unpack_cigar_string(ops.data(), ops.size(), text, 0, is_placeholder);
    return text;
}

void update_bin(BamRecord& record) {
    // In 32 bits that may wrap, as the library computes it.
    std::uint32_t const end =
        static_cast<std::uint32_t>(record.pos) + static_cast<std::uint32_t>(record.ref_length);
    record.bin = codec().reg_to_bin(record.pos, static_cast<std::int32_t>(end));
}

// Drops the field of a long CIGAR.
void drop_long_cigar(BamRecord& record) {
    if (find_long_cigar(record) == nullptr) return;
    auto const is_cigar = [](auto const& field) { return field.tag == "CG" && field.type == 'B'; };
    auto& fields = record.aux_data;
    fields.erase(std::remove_if(fields.begin(), fields.end(), is_cigar), fields.end());
}

// @param text  valid, "*" for none
void set_cigar(BamRecord& record, std::string const& text) {
    drop_long_cigar(record);
    record.cigar.clear();
    auto const n_bases = static_cast<unsigned long>(record.l_seq);
    require(codec().pack_cigar_string(text, record, record.ref_length, n_bases),
            codec().error_message);
    update_bin(record);
}

py::list get_cigar(Record const& self) {
    std::vector<std::uint32_t> const ops = cigar_of(self.get());
    py::list list(ops.size());
    for (std::size_t i = 0; i < ops.size(); ++i) {
        std::size_t const code = ops[i] & CIGAR_OP_MASK;
        std::string const letter(1, code < CIGAR_OP_CODES.size() ? CIGAR_OP_CODES[code] : '?');
        list[i] = py::make_tuple(letter, ops[i] >> CIGAR_OP_BITS);
    }
    return list;
}

// An operation's text.
std::string op_text(std::string const& letter, py::handle length) {
    if (letter.size() != 1 || CIGAR_OP_CODES.find(letter[0]) == std::string_view::npos) {
        raise(PyExc_ValueError,
              "cigar: '" + letter + "' is none of the operations " + std::string(CIGAR_OP_CODES));
    }
    return std::to_string(checked_integer("cigar", length, 0, MAX_OP_LENGTH)) + letter;
}

void set_cigar_from_list(Record const& self, py::iterable const& list) {
    std::string text;
    for (py::handle const op : list) {
        if (!py::isinstance<py::sequence>(op) || py::len(op) != 2) {
            raise(PyExc_TypeError, "cigar: a pair of operation and length is needed, not " +
                                       std::string(py::repr(op)));
        }
        auto const pair = py::reinterpret_borrow<py::sequence>(op);
        if (!py::isinstance<py::str>(pair[0])) {
            raise(PyExc_TypeError, "cigar: a pair of operation and length is needed, not " +
                                       std::string(py::repr(op)));
        }
        text += op_text(py::cast<Text>(pair[0]).bytes, pair[1]);
    }
    set_cigar(self.get(), text.empty() ? "*" : text);
}

void set_cigar_from_text(Record const& self, Text const& cigar) {
    std::string const& text = cigar.bytes;
    auto const is_digit = [](char c) { return c >= '0' && c <= '9'; };
    for (std::size_t i = 0; i < text.size() && text != "*";) {
        std::size_t const begin = i;
        while (i < text.size() && is_digit(text[i])) ++i;
        if (i == begin || i == text.size()) {
            raise(PyExc_ValueError, "cigar_string: '" + text + "' is no CIGAR");
        }
        std::string const digits = text.substr(begin, i - begin);
        op_text(text.substr(i++, 1), py::int_(py::str(digits)));
    }
    set_cigar(self.get(), text.empty() ? "*" : text);
}

// --- Bases and qualities -------------------------------------------------------

py::str get_seq(Record const& self) {
    BamRecord const& record = self.get();
    std::string bases;
    if (record.l_seq != 0) codec().unpack_seq_string(record, bases);
    return to_str(bases);
}

void set_seq(Record const& self, Text const& bases) {
    BamRecord packed;
    require(codec().pack_seq_string(bases.bytes.empty() ? "*" : bases.bytes, packed),
            codec().error_message);
    BamRecord& record = self.get();
    // The placeholder of a long CIGAR counts the bases, and is known by them.
    bool const is_long = find_long_cigar(record) != nullptr;
    std::string const cigar = is_long ? cigar_text(cigar_of(record)) : "";
    drop_long_cigar(record);
    if (packed.l_seq != record.l_seq) {
        record.qual.assign(static_cast<std::size_t>(packed.l_seq), NO_QUALITY);
    }
    record.seq = std::move(packed.seq);
    record.l_seq = packed.l_seq;
    if (is_long) set_cigar(record, cigar);
}

void require_qualities(char const* name, std::size_t n_qualities, BamRecord const& record) {
    if (n_qualities == static_cast<std::size_t>(record.l_seq)) return;
    raise(PyExc_ValueError, std::string(name) + ": " + std::to_string(n_qualities) +
                                " qualities for " + std::to_string(record.l_seq) + " bases");
}

void set_qual(Record const& self, py::handle qualities) {
    if (qualities.is_none()) {
        BamRecord& record = self.get();
        record.qual.assign(static_cast<std::size_t>(record.l_seq), NO_QUALITY);
        return;
    }
    ByteArray const array("qual", qualities);
    auto const view = array.view(1);
    std::vector<char> scores(view.size);
    bool all_missing = true;
    unsigned char highest = 0;
    for (std::size_t i = 0; i < view.size; ++i) {
        scores[i] = static_cast<char>(view[i]);
        all_missing = all_missing && scores[i] == NO_QUALITY;
        highest = std::max(highest, view[i]);
    }
    BamRecord& record = self.get();
    require_qualities("qual", scores.size(), record);
    if (highest > MAX_QUALITY && !all_missing) {
        raise(PyExc_ValueError,
              "qual: " + std::to_string(highest) + " is above " + std::to_string(MAX_QUALITY));
    }
    record.qual = std::move(scores);
}

py::str get_qual_string(Record const& self) {
    std::string text;
    codec().unpack_phred_string(self.get(), text);
    return to_str(text);
}

void set_qual_string(Record const& self, Text const& qualities) {
    std::string const& text = qualities.bytes;
    BamRecord& record = self.get();
    if (text != "*") {
        require_qualities("qual_string", text.size(), record);
        auto const is_quality = [](char c) { return c >= '!' && c <= '~'; };
        if (!std::all_of(text.begin(), text.end(), is_quality)) {
            raise(PyExc_ValueError, "qual_string: a quality is none of '!' to '~'");
        }
    }
    codec().pack_phred_string(text, record);
}

// --- The other fields ----------------------------------------------------------

void set_read_name(Record const& self, Text const& name) {
    std::string const& text = name.bytes;
    auto const is_blank = [](char c) { return c >= '\0' && c <= ' '; };
    bool const is_valid = !text.empty() && text.size() <= MAX_NAME_BYTES &&
                          std::none_of(text.begin(), text.end(), is_blank);
    if (!is_valid) {
        raise(PyExc_ValueError, "read_name: 1 to 254 bytes without white space are needed");
    }
    self.get().read_name = text;
}

// A property of a number; `min` is its least value.
template <typename Class, typename Integer>
void bind_number(Class& bound, char const* name, Integer BamRecord::*field, Integer min,
                 char const* doc) {
    bound.def_property(
        name, [field](Record const& self) { return self.get().*field; },
        [name, field, min](Record const& self, py::handle value) {
            Integer const number = checked<Integer>(name, value, min);
            self.get().*field = number;
        },
        doc);
}

// All that a file keeps of a record.
bool is_equal(BamRecord const& a, BamRecord const& b) {
    auto const fields = [](BamRecord const& r) {
        return std::tie(r.refID, r.pos, r.read_name, r.mapq, r.bin, r.flag, r.l_seq, r.next_refID,
                        r.next_pos, r.tlen, r.cigar, r.seq, r.qual);
    };
    return fields(a) == fields(b) && has_equal_fields(a, b);
}

Record copy_of(Record const& self) { return Record(self.get()); }

void bind_fields(py::class_<Record>& bound) {
    bind_number(bound, "refID", &BamRecord::refID, -1,
                "Index into the handler's `references`; -1 for none.");
    bound.def_property(
        "pos", [](Record const& self) { return self.get().pos; },
        [](Record const& self, py::handle value) {
            auto const pos = checked<std::int32_t>("pos", value, -1);
            self.get().pos = pos;
            update_bin(self.get());
        },
        "Leftmost base, 0-based; -1 for SAM POS 0. Setting it sets `bin`, too.");
    bound.def_property(
        "read_name", [](Record const& self) { return to_str(self.get().read_name); },
        &set_read_name, "QNAME: 1 to 254 bytes without white space.");
    bind_number(bound, "mapq", &BamRecord::mapq, std::uint8_t{0},
                "Mapping quality, 0 to 255; 255 is unavailable.");
    bound.def_property_readonly(
        "bin", [](Record const& self) { return self.get().bin; },
        "Index bin of the bases from `pos` to `pos` + `ref_length`.");
    bind_number(bound, "flag", &BamRecord::flag, std::uint16_t{0}, "SAM FLAG bits.");
    bound.def_property_readonly(
        "l_seq", [](Record const& self) { return self.get().l_seq; },
        "Number of bases; 0 for SEQ \"*\".");
    bind_number(bound, "next_refID", &BamRecord::next_refID, -1,
                "Reference of the next segment: an index into `references`; -1 for none.");
    bind_number(bound, "next_pos", &BamRecord::next_pos, -1,
                "Leftmost base of the next segment, 0-based; -1 for none.");
    bind_number(bound, "tlen", &BamRecord::tlen, std::numeric_limits<std::int32_t>::min(),
                "Observed template length, in bases.");
    bound.def_property_readonly(
        "ref_length", [](Record const& self) { return self.get().ref_length; },
        "Number of reference bases that the CIGAR covers (M, D, N, = and X). Without CIGAR\n"
        "1 where the record comes from SAM text, 0 where it comes from a BAM file.");
    bound.def_property_readonly(
        "sam_line", [](Record const& self) { return to_str(self.get().sam_line); },
        "The SAM line, without line terminator: as it was read, or as the handler's\n"
        "update_sam_line() rendered it last. Setting other fields does not change it.");
}

void bind_packed_fields(py::class_<Record>& bound) {
    bound.def_property(
        "cigar", &get_cigar, &set_cigar_from_list,
        R"(The CIGAR: a new list of pairs of operation ("M") and length; empty for none.

A CIGAR of more than 65,535 operations is taken from the CG field, where the library
keeps it. An unknown operation of SAM text is "?". Setting it sets `ref_length` and
`bin`, too. Raises ValueError for an operation that is none of MIDNSHP=X, and
OverflowError for a length that is not in 0 to 268435455.)");
    bound.def_property(
        "cigar_string", [](Record const& self) { return to_str(cigar_text(cigar_of(self.get()))); },
        &set_cigar_from_text, R"(The CIGAR as SAM text has it; "*" for none.

Setting it is setting `cigar`. Raises ValueError for a text that is no CIGAR.)");
    bound.def_property("seq", &get_seq, &set_seq,
                       R"(The bases as letters of "=ACMGRSVTWYHKDBN"; empty for SEQ "*".

Setting it takes U as T, and sets `l_seq`; where that changes, all qualities become
missing. Raises Error "Invalid sequence code detected" for another letter, lower case
included; the last base of an odd number is not checked, and reads back as N.)");
    bound.def_property(
        "qual",
        [](Record const& self) {
            BamRecord const& record = self.get();
            return py::bytes(record.qual.data(), record.qual.size());
        },
        &set_qual, R"(Phred scores, `l_seq` bytes; all of them 255 where QUAL is "*".

numpy.frombuffer(record.qual, numpy.uint8) is an array of them. Setting it takes any
array of uint8, or None for "*". Raises ValueError for another number of scores than
bases, and for scores above 93.)");
    bound.def_property("qual_string", &get_qual_string, &set_qual_string,
                       R"(The qualities as SAM text has them, with the offset 33; "*" for none.

Setting it raises ValueError for another number of scores than bases, and for
characters that are none of "!" to "~".)");
    bound.def_property_readonly(
        "aux_data", [](Record const& self) { return AuxDataList{self}; },
        "The optional fields: by position as AuxData, by tag their values.");
}

// --- The list of a handler -----------------------------------------------------

struct RecordList {
    std::shared_ptr<Handler> handler;
};

std::vector<BamRecord>& records_of(RecordList const& list) {
    return list.handler->library().records;
}

// Positions that a slice means, as begin, step and number.
std::tuple<Py_ssize_t, Py_ssize_t, Py_ssize_t> positions_of(RecordList const& list,
                                                            py::handle slice) {
    Py_ssize_t begin = 0;
    Py_ssize_t end = 0;
    Py_ssize_t step = 0;
    if (PySlice_Unpack(slice.ptr(), &begin, &end, &step) != 0) throw py::error_already_set();
    auto const size = static_cast<Py_ssize_t>(records_of(list).size());
    Py_ssize_t const n = PySlice_AdjustIndices(size, &begin, &end, step);
    return {begin, step, n};
}

std::size_t position_of(RecordList const& list, py::handle key) {
    Py_ssize_t const index = index_from(key);
    return position_in(records_of(list).size(), index, "record index out of range");
}

py::object get_item(RecordList const& list, py::handle key) {
    if (!PySlice_Check(key.ptr())) return py::cast(Record(list.handler, position_of(list, key)));
    auto const [begin, step, n] = positions_of(list, key);
    py::list result(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        result[static_cast<std::size_t>(i)] =
            Record(list.handler, static_cast<std::size_t>(begin + i * step));
    }
    return std::move(result);
}

void delete_items(RecordList const& list, py::handle key) {
    std::vector<BamRecord>& records = records_of(list);
    if (!PySlice_Check(key.ptr())) {
        std::size_t const position = position_of(list, key);
        records.erase(records.begin() + static_cast<std::ptrdiff_t>(position));
        list.handler->note_move();
        return;
    }
    auto [begin, step, n] = positions_of(list, key);
    if (n == 0) return;
    if (step < 0) {
        begin += (n - 1) * step;
        step = -step;
    }
    // Those that stay move up, each once.
    auto const first = static_cast<std::size_t>(begin);
    auto const last = static_cast<std::size_t>(begin + (n - 1) * step);
    std::size_t place = first;
    for (std::size_t i = first; i < records.size(); ++i) {
        bool const goes = i <= last && (i - first) % static_cast<std::size_t>(step) == 0;
        if (!goes) records[place++] = std::move(records[i]);
    }
    records.erase(records.begin() + static_cast<std::ptrdiff_t>(place), records.end());
    list.handler->note_move();
}

void append(RecordList const& list, Record const& record) {
    BamRecord copy = record.get();
    records_of(list).push_back(std::move(copy));
    list.handler->library().has_sort_order = false;
}

void bind_record_list(py::module_& module) {
    py::class_<RecordList>(module, "RecordList", R"(The records of a handler: a view of its list.

Records are not copied: `records[i]` and the records of a slice are the handler's own.)")
        .def(
            "__len__", [](RecordList const& list) { return records_of(list).size(); },
            "__len__(self)\n--\n\nNumber of records.")
        .def("__getitem__", &get_item, R"(__getitem__(self, index, /)
--

The record at a position, or a list of the records of a slice.

Raises IndexError "record index out of range".)")
        .def("__delitem__", &delete_items, R"(__delitem__(self, index, /)
--

Deletes the record at a position, or those of a slice. Records that were taken out of
the list before can no longer be used.

Raises IndexError "record index out of range".)")
        .def(
            "__iter__",
            [](py::object const& self) {
                return py::reinterpret_steal<py::object>(PySeqIter_New(self.ptr()));
            },
            "__iter__(self)\n--\n\nGoes through the records.")
        .def("append", &append, py::arg("record"), R"(append(self, record)
--

Appends a copy of a record, of this handler, of another or of none; `has_sort_order` is
then false.)");
}

}  // namespace

BamRecord& Record::get() const {
    if (!handler_) return *own_;
    std::vector<BamRecord>& records = handler_->library().records;
    if (n_moves_ != handler_->n_moves() || place_ >= records.size()) {
        raise_error("The handler's records have changed: take the record out of the list again");
    }
    return records[place_];
}

void bind_records(py::module_& module) {
    py::class_<Record> bound(module, "BamRecord", R"(BamRecord()
--

One alignment. Positions are 0-based, intervals half-open.

BamRecord() is a record of its own, with every number 0 and every text empty. A record
of a handler is not copied: what is set here is set in the handler. It can be used
while records are only added to the handler, and keeps the handler alive; once
records may be elsewhere or gone (after sort(), reset(), reading, deleting, writing an
index), all of its members raise Error "The handler's records have changed: take the
record out of the list again". copy() makes a record that stays.

Setting a field leaves `sam_line`, which SAM files get, as it is: call the handler's
update_sam_line(). A number that does not fit raises OverflowError.)");
    bound.def(py::init([] { return Record(BamRecord()); }),
              "__init__(self)\n--\n\nAn empty record.");
    bind_fields(bound);
    bind_packed_fields(bound);
    bound.def("copy", &copy_of, "copy(self)\n--\n\nA record of its own with the same fields.")
        .def("__copy__", &copy_of, "__copy__(self)\n--\n\nThe same as copy().")
        .def(
            "__deepcopy__", [](Record const& self, py::handle) { return copy_of(self); },
            py::arg("memo"), "__deepcopy__(self, memo)\n--\n\nThe same as copy().")
        .def(
            "__eq__",
            [](Record const& self, py::handle other) -> py::object {
                if (!py::isinstance<Record>(other)) {
                    return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                }
                return py::bool_(is_equal(self.get(), py::cast<Record const&>(other).get()));
            },
            R"(__eq__(self, value, /)
--

Whether all fields are the same that a BAM file keeps: all but `ref_length` and
`sam_line`.)")
        .def(
            "__repr__",
            [](Record const& self) {
                BamRecord const& record = self.get();
                return to_str("<tesk_bam.BamRecord '" + record.read_name + "': reference " +
                              std::to_string(record.refID) + ", position " +
                              std::to_string(record.pos) + ", " + std::to_string(record.l_seq) +
                              " bases>");
            },
            "__repr__(self)\n--\n\nName, place and length.");
    bind_record_list(module);
}

py::object make_record_list(std::shared_ptr<Handler> handler) {
    return py::cast(RecordList{std::move(handler)});
}

}  // namespace tesk::python
