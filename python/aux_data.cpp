// Optional fields: their values as Python has them.

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <boost/any.hpp>

#include "python/records.h"

namespace tesk::python {

namespace {

using AuxData = BAMFileHandler::AuxData;
using AuxNumericalArray = BAMFileHandler::AuxNumericalArray;

// Element types of a B array.
struct ElementType {
    char letter;
    std::size_t width_bytes;
    char const* dtype;   // of NumPy
    char const* format;  // of a buffer
};
constexpr ElementType ELEMENT_TYPES[] = {
    {'c', 1, "int8", "b"},    {'C', 1, "uint8", "B"}, {'s', 2, "int16", "h"},
    {'S', 2, "uint16", "H"},  {'i', 4, "int32", "i"}, {'I', 4, "uint32", "I"},
    {'f', 4, "float32", "f"},
};

// --- From the library ----------------------------------------------------------

py::object array_value(AuxNumericalArray const& array) {
    auto const* const type =
        std::find_if(std::begin(ELEMENT_TYPES), std::end(ELEMENT_TYPES),
                     [&](ElementType const& known) { return known.letter == array.type; });
    // An array of an unknown type has no elements.
    bool const is_known = type != std::end(ELEMENT_TYPES);
    py::array made(py::dtype(is_known ? type->dtype : "uint8"),
                   is_known ? array.data.size() / type->width_bytes : 0);
    if (made.nbytes() != 0) {
        std::memcpy(made.mutable_data(), array.data.data(),
                    static_cast<std::size_t>(made.nbytes()));
    }
    return made;
}

py::object value_of(AuxData const& field) {
    switch (field.type) {
        case 'A': {
            char const letter = boost::any_cast<char>(field.value);
            return to_str({&letter, 1});
        }
        case 'c': return py::int_(boost::any_cast<std::int8_t>(field.value));
        case 'C': return py::int_(boost::any_cast<std::uint8_t>(field.value));
        case 's': return py::int_(boost::any_cast<std::int16_t>(field.value));
        case 'S': return py::int_(boost::any_cast<std::uint16_t>(field.value));
        case 'i': return py::int_(boost::any_cast<std::int32_t>(field.value));
        case 'I': return py::int_(boost::any_cast<std::uint32_t>(field.value));
        case 'f': return py::float_(double{boost::any_cast<float>(field.value)});
        case 'B': return array_value(boost::any_cast<AuxNumericalArray const&>(field.value));
        default: return to_str(boost::any_cast<std::string const&>(field.value));  // Z, H
    }
}

template <typename T>
bool has_same(boost::any const& a, boost::any const& b) {
    return boost::any_cast<T const&>(a) == boost::any_cast<T const&>(b);
}

bool is_equal(AuxData const& a, AuxData const& b) {
    if (a.tag != b.tag || a.type != b.type) return false;
    switch (a.type) {
        case 'A': return has_same<char>(a.value, b.value);
        case 'c': return has_same<std::int8_t>(a.value, b.value);
        case 'C': return has_same<std::uint8_t>(a.value, b.value);
        case 's': return has_same<std::int16_t>(a.value, b.value);
        case 'S': return has_same<std::uint16_t>(a.value, b.value);
        case 'i': return has_same<std::int32_t>(a.value, b.value);
        case 'I': return has_same<std::uint32_t>(a.value, b.value);
        case 'f': return has_same<float>(a.value, b.value);
        case 'B': {
            auto const& x = boost::any_cast<AuxNumericalArray const&>(a.value);
            auto const& y = boost::any_cast<AuxNumericalArray const&>(b.value);
            return x.type == y.type && x.data == y.data;
        }
        default: return has_same<std::string>(a.value, b.value);
    }
}

// --- From Python ---------------------------------------------------------------

std::string text_from(py::handle value, std::string const& tag) {
    if (!PyUnicode_Check(value.ptr())) {
        raise(PyExc_TypeError, tag + ": a str is needed, not " + Py_TYPE(value.ptr())->tp_name);
    }
    std::string text = py::cast<Text>(value).bytes;
    if (text.find_first_of(std::string_view("\0\t\n", 3)) != std::string::npos) {
        raise(PyExc_ValueError, tag + ": a text cannot hold NUL, tab or newline");
    }
    return text;
}

char letter_from(py::handle value, std::string const& tag) {
    std::string const text = text_from(value, tag);
    if (text.size() != 1) {
        raise(PyExc_ValueError,
              tag + ": one character is needed, not " + std::to_string(text.size()));
    }
    return text[0];
}

// Copies an array of one dimension; its element type is that of the NumPy array.
AuxNumericalArray array_from(py::handle value, std::string const& tag) {
    std::string const needed = tag +
                               ": an array of int8, uint8, int16, uint16, int32, uint32 or "
                               "float32 is needed";
    if (!py::isinstance<py::array>(value)) {
        raise(PyExc_TypeError, needed + ", not " + Py_TYPE(value.ptr())->tp_name);
    }
    auto const array = py::reinterpret_borrow<py::array>(value);
    auto const* const type = std::find_if(
        std::begin(ELEMENT_TYPES), std::end(ELEMENT_TYPES),
        [&](ElementType const& known) { return array.dtype().equal(py::dtype(known.dtype)); });
    if (type == std::end(ELEMENT_TYPES)) {
        raise(PyExc_TypeError, needed + ", not of " + std::string(py::str(array.dtype())));
    }
    if (array.ndim() != 1) {
        raise(PyExc_TypeError,
              tag + ": one dimension is needed, not " + std::to_string(array.ndim()));
    }
    AuxNumericalArray result;
    result.type = type->letter;
    result.count = checked<std::uint32_t>(tag.c_str(), py::int_(array.size()));
    result.data.resize(result.count * type->width_bytes);
    for (std::size_t i = 0; i < result.count; ++i) {
        std::memcpy(result.data.data() + i * type->width_bytes, array.data(i), type->width_bytes);
    }
    return result;
}

boost::any value_from(py::handle value, std::string const& tag, char type) {
    char const* const name = tag.c_str();
    switch (type) {
        case 'A': return letter_from(value, tag);
        case 'c': return checked<std::int8_t>(name, value);
        case 'C': return checked<std::uint8_t>(name, value);
        case 's': return checked<std::int16_t>(name, value);
        case 'S': return checked<std::uint16_t>(name, value);
        case 'i': return checked<std::int32_t>(name, value);
        case 'I': return checked<std::uint32_t>(name, value);
        case 'f': {
            double const number = PyFloat_AsDouble(value.ptr());
            if (number == -1 && PyErr_Occurred() != nullptr) throw py::error_already_set();
            return static_cast<float>(number);
        }
        case 'Z':
        case 'H': return text_from(value, tag);
        case 'B': return array_from(value, tag);
        default: raise(PyExc_ValueError, tag + ": '" + type + "' is none of the types AcCsSiIfZHB");
    }
}

AuxData make_field(Text const& tag, Text const& type, py::handle value) {
    auto const is_graphic = [](char c) { return c > ' ' && c <= '~'; };
    if (tag.bytes.size() != 2 || !std::all_of(tag.bytes.begin(), tag.bytes.end(), is_graphic)) {
        raise(PyExc_ValueError, "'" + tag.bytes + "' is no tag of two characters");
    }
    if (type.bytes.size() != 1) {
        raise(PyExc_ValueError,
              tag.bytes + ": '" + type.bytes + "' is none of the types AcCsSiIfZHB");
    }
    return {tag.bytes, type.bytes[0], value_from(value, tag.bytes, type.bytes[0])};
}

// --- The list of a record ------------------------------------------------------

std::vector<AuxData>& fields_of(AuxDataList const& list) { return list.record.get().aux_data; }

std::optional<std::size_t> find_tag(AuxDataList const& list, std::string const& tag) {
    std::vector<AuxData> const& fields = fields_of(list);
    auto const found = std::find_if(fields.begin(), fields.end(),
                                    [&](AuxData const& field) { return field.tag == tag; });
    if (found == fields.end()) return std::nullopt;
    return static_cast<std::size_t>(found - fields.begin());
}

// Place of a field that an index or a tag names. Raises IndexError or KeyError.
std::size_t find_field(AuxDataList const& list, py::handle key) {
    if (!PyUnicode_Check(key.ptr())) {
        Py_ssize_t const index = index_from(key);
        return position_in(fields_of(list).size(), index, "optional field index out of range");
    }
    std::optional<std::size_t> const place = find_tag(list, py::cast<Text>(key).bytes);
    if (place) return *place;
    PyErr_SetObject(PyExc_KeyError, key.ptr());
    throw py::error_already_set();
}

// A copy: making objects of Python may run code that changes the list.
AuxData copy_field(AuxDataList const& list, std::size_t place) { return fields_of(list)[place]; }

std::string repr_of(AuxData const& field) {
    return "AuxData('" + field.tag + "', '" + field.type + "', " +
           std::string(py::repr(value_of(field))) + ")";
}

void bind_field(py::module_& module) {
    py::class_<AuxData>(module, "AuxData", R"(AuxData(tag, type, value)
--

One optional field of a record: a tag of two characters, a type letter and a value.

The value of type A, Z and H is a str, of c, C, s, S, i and I an int, of f a float,
of B a NumPy array of int8 (c), uint8 (C), int16 (s), uint16 (S), int32 (i), uint32 (I)
or float32 (f), which is a copy. Records from SAM text have the types A, i, f, Z, H and
B, those from BAM files all of them. Fields of type s and S, which SAM text does not
have, cannot be written to BAM files. A field does not change.

Raises ValueError for a tag or type that is none, and for a text with NUL, tab or
newline; TypeError for a value of another type, also for an array of another dtype;
OverflowError for an integer that the type cannot hold.)")
        .def(py::init(&make_field), py::arg("tag"), py::arg("type"), py::arg("value"),
             "__init__(self, tag, type, value)\n--\n\nA field of these three.")
        .def_property_readonly(
            "tag", [](AuxData const& field) { return to_str(field.tag); }, "Two characters.")
        .def_property_readonly(
            "type",
            [](AuxData const& field) {
                return to_str({&field.type, 1});
            },
            "Type letter: A, c, C, s, S, i, I, f, Z, H or B.")
        .def_property_readonly("value", &value_of,
                               "The value: str, int, float, or an array that is made anew each "
                               "time.")
        .def(
            "__eq__",
            [](AuxData const& field, py::handle other) -> py::object {
                if (!py::isinstance<AuxData>(other)) {
                    return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                }
                return py::bool_(is_equal(field, py::cast<AuxData const&>(other)));
            },
            "__eq__(self, value, /)\n--\n\nWhether tag, type and value are the same.")
        .def("__repr__", &repr_of, "__repr__(self)\n--\n\nThe call that makes the field.");
}

}  // namespace

bool has_equal_fields(BamRecord const& a, BamRecord const& b) {
    return std::equal(a.aux_data.begin(), a.aux_data.end(), b.aux_data.begin(), b.aux_data.end(),
                      is_equal);
}

void bind_aux_data(py::module_& module) {
    bind_field(module);
    py::class_<AuxDataList>(module, "AuxDataList",
                            R"(The optional fields of a record, in their order.

By position the list has AuxData, by tag (`record.aux_data["NM"]`) the value of the
first field with this tag. It is a view: what is appended or deleted here changes the
record, and it is as good as the record, see BamRecord.)")
        .def(
            "__len__", [](AuxDataList const& list) { return fields_of(list).size(); },
            "__len__(self)\n--\n\nNumber of fields.")
        .def(
            "__getitem__",
            [](AuxDataList const& list, py::handle key) -> py::object {
                AuxData const field = copy_field(list, find_field(list, key));
                if (PyUnicode_Check(key.ptr())) return value_of(field);
                return py::cast(field);
            },
            R"(__getitem__(self, key, /)
--

The field at a position, or the value of the first field with a tag.

Raises IndexError or KeyError where there is none.)")
        .def(
            "__delitem__",
            [](AuxDataList const& list, py::handle key) {
                std::size_t const place = find_field(list, key);
                std::vector<AuxData>& fields = fields_of(list);
                fields.erase(fields.begin() + static_cast<std::ptrdiff_t>(place));
            },
            R"(__delitem__(self, key, /)
--

Deletes the field at a position, or the first one with a tag.

Raises IndexError or KeyError where there is none.)")
        .def(
            "__contains__",
            [](AuxDataList const& list, Text const& tag) {
                return find_tag(list, tag.bytes).has_value();
            },
            "__contains__(self, tag, /)\n--\n\nWhether there is a field with this tag.")
        .def(
            "__iter__",
            [](py::object const& self) {
                return py::reinterpret_steal<py::object>(PySeqIter_New(self.ptr()));
            },
            "__iter__(self)\n--\n\nGoes through the fields as AuxData.")
        .def(
            "get",
            [](AuxDataList const& list, Text const& tag, py::object const& otherwise) {
                std::optional<std::size_t> const place = find_tag(list, tag.bytes);
                return place ? value_of(copy_field(list, *place)) : otherwise;
            },
            py::arg("tag"), py::arg("default") = py::none(),
            R"(get(self, tag, default=None)
--

The value of the first field with a tag, or `default` where there is none.)")
        .def(
            "append",
            [](AuxDataList const& list, AuxData const& field) { fields_of(list).push_back(field); },
            py::arg("field"),
            R"(append(self, field)
--

Adds a field at the end. Another one with the same tag stays.)")
        .def(
            "__repr__",
            [](AuxDataList const& list) {
                std::string text = "[";
                for (std::size_t i = 0; i < fields_of(list).size(); ++i) {
                    text += (i == 0 ? "" : ", ") + repr_of(copy_field(list, i));
                }
                return to_str(text + "]");
            },
            "__repr__(self)\n--\n\nThe fields as a list would show them.");
}

}  // namespace tesk::python
