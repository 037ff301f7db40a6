// SAM text of a basecaller's output.

#include <cstdint>
#include <string>
#include <vector>

#include <pybind11/numpy.h>

#include "python/byte_array.h"
#include "python/records.h"

namespace tesk::python {

namespace {

using ByteView = data_wrappers::VecView<unsigned char>;
using util::bam::BaseModContext;

py::str make_unmapped_sam_line(Text const& name, Text const& sequence, Text const& qstring) {
    std::string line;
    std::string error;
    require(BAMFileHandler::make_unmapped_sam_line(line, name.bytes, sequence.bytes, qstring.bytes,
                                                   error),
            error);
    return to_str(line);
}

py::str generate_move_table_string(py::handle moves, py::handle stride) {
    ByteArray const array("moves", moves);
    ByteView const view = array.view(1);
    auto const samples = checked<signed char>("stride", stride);
    std::string field;
    std::string error;
    require(BAMFileHandler::generate_move_table_string(field, view, samples, error), error);
    return to_str(field);
}

// Probabilities by base and channel, in an array of two dimensions or of one.
ByteView probabilities(ByteArray const& array, std::string const& sequence,
                       std::string const& alphabet) {
    ByteView const view = array.view(2);
    // Others of the same size would be taken for what they are not.
    bool const is_turned = array.n_dimensions() == 2 &&
                           view.size == sequence.size() * alphabet.size() &&
                           array.length(0) != sequence.size();
    if (is_turned) {
        raise(PyExc_ValueError, "probs: shape (" + std::to_string(array.length(0)) + ", " +
                                    std::to_string(array.length(1)) + ") is not (" +
                                    std::to_string(sequence.size()) + ", " +
                                    std::to_string(alphabet.size()) + "): bases x channels");
    }
    return view;
}

py::str generate_modbase_string(Text const& sequence, Text const& alphabet, Text const& long_names,
                                py::handle probs, py::handle threshold, Text const& context) {
    ByteArray const array("probs", probs);
    ByteView const view = probabilities(array, sequence.bytes, alphabet.bytes);
    auto const least = checked<std::uint8_t>("threshold", threshold);
    std::string fields;
    std::string error;
    require(BAMFileHandler::generate_modbase_string(fields, sequence.bytes, alphabet.bytes,
                                                    long_names.bytes, context.bytes, view, least,
                                                    error),
            error);
    return to_str(fields);
}

py::str get_modbase_channel_name(Text const& long_name) {
    std::string code;
    std::string error;
    require(BAMFileHandler::get_modbase_channel_name(code, long_name.bytes, error), error);
    return to_str(code);
}

char base_from(Text const& base) {
    if (base.bytes.size() != 1) {
        raise(PyExc_ValueError, "base: one letter is needed, not '" + base.bytes + "'");
    }
    return base.bytes[0];
}

BaseModContext make_context(Text const& text) {
    BaseModContext context;
    if (!text.bytes.empty() && !context.decode(text.bytes)) {
        raise_error("Invalid base modification context string.");
    }
    return context;
}

py::array_t<int> get_sequence_mask(BaseModContext const& self, Text const& sequence) {
    std::vector<int> const mask = self.get_sequence_mask(sequence.bytes);
    return py::array_t<int>(static_cast<py::ssize_t>(mask.size()), mask.data());
}

void update_mask(BaseModContext const& self, py::handle mask, Text const& sequence,
                 Text const& alphabet, py::handle probs, py::handle threshold) {
    if (!py::isinstance<py::array_t<int>>(mask)) {
        raise(PyExc_TypeError, "mask: an array of int32 is needed");
    }
    auto array = py::reinterpret_borrow<py::array_t<int>>(mask);
    if (array.ndim() != 1 || !array.writeable()) {
        raise(PyExc_TypeError, "mask: one dimension that can be written to is needed");
    }
    ByteArray const bytes("probs", probs);
    ByteView const view = probabilities(bytes, sequence.bytes, alphabet.bytes);
    auto const least = checked<std::uint8_t>("threshold", threshold);
    auto marks = array.mutable_unchecked<1>();
    std::vector<int> copy(static_cast<std::size_t>(marks.size()));
    for (std::size_t i = 0; i < copy.size(); ++i) copy[i] = marks(static_cast<py::ssize_t>(i));
    self.update_mask(copy, sequence.bytes, alphabet.bytes, view, least);
    for (std::size_t i = 0; i < copy.size(); ++i) marks(static_cast<py::ssize_t>(i)) = copy[i];
}

void bind_functions(py::module_& module) {
    module.def("make_unmapped_sam_line", &make_unmapped_sam_line, py::arg("name"),
               py::arg("sequence"), py::arg("qstring"),
               R"(make_unmapped_sam_line(name, sequence, qstring)
--

The eleven columns of an unmapped SAM line.

`qstring` is QUAL as text, offset 33 included, one character a base. FLAG is 4, MAPQ 0,
TLEN the number of bases. No character is checked. Raises Error with one of
  "sequence and qscore do not match size!"
  "Empty read_name string provided!"
  "Empty sequence and qstring provided!")");
    module.def("generate_move_table_string", &generate_move_table_string, py::arg("moves"),
               py::arg("stride"),
               R"(generate_move_table_string(moves, stride)
--

The optional field that carries a move table: "mv:B:c,", the stride, and every entry
after a comma, those above 126 as runs of 127 and the rest.

`moves` is an array of uint8 of one dimension with one entry per signal step, of any
step between elements that is not negative; it is not copied. `stride` is the number of
signal samples per step, -128 to 127. Raises TypeError for another array, which says what
to do, OverflowError for another stride, and Error
  "Zero length move table provided to generate_move_table_string")");
    module.def(
        "generate_modbase_string", &generate_modbase_string, py::arg("sequence"),
        py::arg("alphabet"), py::arg("long_names"), py::arg("probs"), py::arg("threshold"),
        py::arg("context") = "",
        R"(generate_modbase_string(sequence, alphabet, long_names, probs, threshold, context='')
--

The optional fields of modified-base calls: "Mm:Z:" and the calls of each modification,
a tab, "Ml:B:C" and their probabilities.

`alphabet` has one letter per channel: a base of "ACGT", then its modifications, such as
"ACmGT"; `long_names` is the name of each modification in this order, between blanks, such
as "5mC". `probs` is an array of uint8, bases x channels, or the same in one dimension,
row by row; 255 is certain. It is not copied, so its elements must lie at one step that is
not negative, row behind row. `context` is the text form of a BaseModContext. Bases without
a context are reported where a channel of theirs reaches `threshold`, 0 to 255.

Raises TypeError for an array that cannot be passed on, which says what to do, ValueError
for one whose shape is turned, OverflowError for another threshold, and Error with one of
  "Mismatch between modbase_probs size and sequence length * num channels in
      modbase_alphabet!"  (one line)
  "Unknown modified base abbreviation: " + name
  "Invalid base modification context string."
and InvalidValueError "map::at" for another letter than A, C, G and T in the sequence,
and for an alphabet that begins with a modification.)");
    module.def("get_modbase_channel_name", &get_modbase_channel_name, py::arg("long_name"),
               R"(get_modbase_channel_name(long_name)
--

Code of a modification in the Mm field: 6mA a, 5mC m, 5hmC h, 5fc f (lower case),
5caC c, 8oxoG o, 5hmU g, 5fU e, 5caU b; a name of digits alone, or an empty one, itself.

Raises Error "Unknown modified base abbreviation: " + long_name.)");
}

}  // namespace

void bind_annotations(py::module_& module) {
    bind_functions(module);
    py::class_<BaseModContext>(module, "BaseModContext", R"(BaseModContext(text='')
--

The sequence context in which modifications of each of A, C, G and T are reported: a
short motif that holds the base at a known offset.

The text form has a field for each of A, C, G and T, joined by ":": "_" for no context,
else the motif with an X in the place of the base. "_:XG:_:_" is C where G follows. An
empty text is no context. Raises Error "Invalid base modification context string.")")
        .def(py::init(&make_context), py::arg("text") = "",
             "__init__(self, text='')\n--\n\nThe contexts of a text form.")
        .def(
            "set_context",
            [](BaseModContext& self, Text const& motif, py::handle offset) {
                self.set_context(motif.bytes, checked<std::uint32_t>("offset", offset));
            },
            py::arg("motif"), py::arg("offset"),
            R"(set_context(self, motif, offset)
--

Sets the context of the base that stands at an offset, from 0, of a motif.

Raises Error "Invalid motif string '" + motif + "'." where no A, C, G or T stands there,
and InvalidValueError for an offset outside the motif.)")
        .def(
            "motif",
            [](BaseModContext const& self, Text const& base) {
                return to_str(self.motif(base_from(base)));
            },
            py::arg("base"),
            R"(motif(self, base)
--

Motif of a base; empty for no context. Raises InvalidValueError "map::at" for another
letter than A, C, G and T.)")
        .def(
            "motif_offset",
            [](BaseModContext const& self, Text const& base) {
                return self.motif_offset(base_from(base));
            },
            py::arg("base"),
            R"(motif_offset(self, base)
--

Offset of a base in its motif, from 0; 0 for no context. Raises InvalidValueError
"map::at" for another letter than A, C, G and T.)")
        .def("get_sequence_mask", &get_sequence_mask, py::arg("sequence"),
             R"(get_sequence_mask(self, sequence)
--

A new array of int32, one number a base: 1 where it stands in its context, else 0.

A motif that ends on the last base does not count. Raises InvalidValueError "map::at"
for another letter than A, C, G and T.)")
        .def("update_mask", &update_mask, py::arg("mask"), py::arg("sequence"), py::arg("alphabet"),
             py::arg("probs"), py::arg("threshold"),
             R"(update_mask(self, mask, sequence, alphabet, probs, threshold)
--

Sets a mask, an array of int32, to 1 where a base has no context and a modification
channel of it reaches the threshold. Marks that are there stay.

The other arguments are those of generate_modbase_string(). Raises InvalidValueError
"Mask or probabilities shorter than the sequence", or "map::at" for an alphabet that
begins with a modification; the mask is then as before.)")
        .def(
            "encode", [](BaseModContext const& self) { return to_str(self.encode()); },
            "encode(self)\n--\n\nThe text form.")
        .def(
            "decode",
            [](BaseModContext& self, Text const& text) { return self.decode(text.bytes); },
            py::arg("text"),
            R"(decode(self, text)
--

Takes contexts over from their text form. False where there are not four fields (nothing
is changed then), or where a field is neither "_" nor has an X (fields before it are
taken over then).)")
        .def(
            "__repr__",
            [](BaseModContext const& self) {
                return to_str("BaseModContext('" + self.encode() + "')");
            },
            "__repr__(self)\n--\n\nThe call that makes the context.");
}

}  // namespace tesk::python
