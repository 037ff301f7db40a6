"""A basecaller's output as SAM text, and arrays that are not copied."""

import array

import numpy
import pytest
from conftest import run_measured

import tesk_bam
from tesk_bam import generate_modbase_string, generate_move_table_string

MISMATCH = (
    "Mismatch between modbase_probs size and sequence length * num channels in modbase_alphabet!"
)


# --- The unmapped line ------------------------------------------------------------


def test_unmapped_line():
    line = tesk_bam.make_unmapped_sam_line("r1", "ACGT", "IIII")
    assert line == "r1\t4\t*\t0\t0\t*\t*\t0\t4\tACGT\tIIII"
    assert line == tesk_bam.make_unmapped_sam_line(name="r1", sequence="ACGT", qstring="IIII")


@pytest.mark.parametrize(
    "arguments, message",
    [
        (("r", "AC", "I"), "sequence and qscore do not match size!"),
        (("", "A", "I"), "Empty read_name string provided!"),
        (("r", "", ""), "Empty sequence and qstring provided!"),
    ],
)
def test_unmapped_line_messages(arguments, message):
    with pytest.raises(tesk_bam.Error) as caught:
        tesk_bam.make_unmapped_sam_line(*arguments)
    assert str(caught.value) == message


# --- Move tables ------------------------------------------------------------------


def test_move_table():
    moves = numpy.array([1, 0, 126, 127, 200, 255], numpy.uint8)
    assert generate_move_table_string(moves, 5) == "mv:B:c,5,1,0,126,127,0,127,73,127,127,1"


VALUES = numpy.random.default_rng(1).integers(0, 2, 240, numpy.uint8)
MATRIX = VALUES.reshape(60, 4)
STRUCTURED = numpy.zeros(60, [("before", "i4"), ("move", "u1"), ("after", "f8")])
STRUCTURED["move"] = MATRIX[:, 2]
READ_ONLY = VALUES.copy()
READ_ONLY.flags.writeable = False


@pytest.mark.parametrize(
    "moves",
    [
        VALUES,
        VALUES[::3],
        VALUES[7:8],
        MATRIX[:, 1],
        MATRIX[5, :],
        MATRIX[:1, 3],
        MATRIX[:, :1][:, 0],
        STRUCTURED["move"],
        READ_ONLY,
        numpy.broadcast_to(numpy.uint8(1), 50),
        VALUES[::-1][:1],
    ],
    ids=str.split(
        "whole stepped one column row one_of_column first_column field read_only same reversed_one"
    ),
)
def test_move_table_of_any_step(moves):
    expected = "mv:B:c,-7," + ",".join(str(move) for move in moves.tolist())
    assert generate_move_table_string(moves, -7) == expected


@pytest.mark.parametrize(
    "moves",
    [b"\1\0\1", bytearray(b"\1\0\1"), memoryview(b"\1\1\0\1\1")[::2], array.array("B", [1, 0, 1])],
)
def test_move_table_of_other_buffers(moves):
    assert generate_move_table_string(moves, 1) == "mv:B:c,1,1,0,1"


def test_array_is_let_go():
    moves = bytearray(b"\1\0\1")
    assert generate_move_table_string(moves, 1) == "mv:B:c,1,1,0,1"
    with pytest.raises(OverflowError):
        generate_move_table_string(moves, 128)
    with pytest.raises(TypeError):
        generate_move_table_string(memoryview(moves)[::-1], 1)
    moves.append(1)  # BufferError while somebody looks into it


NEGATIVE = (
    "moves: elements at negative steps cannot be passed on: copy them with "
    "numpy.ascontiguousarray()"
)
NEEDED = "moves: an array of uint8 is needed, not "


@pytest.mark.parametrize(
    "moves, message",
    [
        (VALUES[::-1], NEGATIVE),
        (MATRIX[::-1, 0], NEGATIVE),
        (MATRIX, "moves: one dimension is needed, not 2"),
        (numpy.uint8(1), "moves: one dimension is needed, not 0"),
        ([1, 0], NEEDED + "list"),
        ("10", NEEDED + "str"),
        (None, NEEDED + "NoneType"),
        (VALUES.astype(numpy.int8), NEEDED + "of int8: convert it with astype(numpy.uint8)"),
        (VALUES.astype(bool), NEEDED + "of bool: convert it with astype(numpy.uint8)"),
        (VALUES.astype(numpy.int64), NEEDED + "of int64: convert it with astype(numpy.uint8)"),
        (VALUES.astype(float), NEEDED + "of float64: convert it with astype(numpy.uint8)"),
        (VALUES.astype(object), NEEDED + "of object: convert it with astype(numpy.uint8)"),
        (
            VALUES.astype("datetime64[s]"),
            NEEDED + "of datetime64[s]: convert it with astype(numpy.uint8)",
        ),
        (
            array.array("b", [1]),
            NEEDED + "of format 'b': convert it with astype(numpy.uint8)",
        ),
    ],
)
def test_moves_that_cannot_be_passed_on(moves, message):
    with pytest.raises(TypeError) as caught:
        generate_move_table_string(moves, 5)
    assert str(caught.value) == message


def test_negative_step_after_the_advised_copy():
    moves = numpy.ascontiguousarray(numpy.array([1, 0, 2], numpy.uint8)[::-1])
    assert generate_move_table_string(moves, 5) == "mv:B:c,5,2,0,1"


def test_move_table_messages():
    with pytest.raises(tesk_bam.Error) as caught:
        generate_move_table_string(VALUES[:0], 5)
    assert str(caught.value) == "Zero length move table provided to generate_move_table_string"
    for stride in (-129, 128):
        with pytest.raises(OverflowError) as overflow:
            generate_move_table_string(VALUES, stride)
        assert str(overflow.value) == f"stride: {stride} is not in -128 to 127"
    with pytest.raises(TypeError):
        generate_move_table_string(VALUES, 5.0)


# --- Modified bases ---------------------------------------------------------------


def expected_modbases(sequence, probs, threshold):
    """The fields for the alphabet ACmhGT without contexts."""
    called = [max(row[2:4]) >= threshold for row in probs.tolist()]
    skips, skipped = "", 0
    for base, is_called in zip(sequence, called):
        if base == "C":
            skips += f",{skipped}" if is_called else ""
            skipped = 0 if is_called else skipped + 1
    numbers = [
        f",{row[channel]}"
        for channel in (2, 3)
        for base, row, is_called in zip(sequence, probs.tolist(), called)
        if base == "C" and is_called
    ]
    return f"Mm:Z:C+m{skips};C+h{skips};\tMl:B:C{''.join(numbers)}"


RANDOM = numpy.random.default_rng(2)
SEQUENCE = "".join(RANDOM.choice(list("ACGT"), 150))
PROBS = RANDOM.integers(0, 256, (150, 6), numpy.uint8)


def modbases(probs, threshold=200, **arguments):
    return generate_modbase_string(SEQUENCE, "ACmhGT", "5mC 5hmC", probs, threshold, **arguments)


WIDE = numpy.zeros((150, 12), numpy.uint8)
WIDE[:, ::2] = PROBS
TALL = numpy.zeros((150, 6, 3), numpy.uint8)
TALL[:, :, 1] = PROBS


@pytest.mark.parametrize(
    "probs",
    [PROBS, PROBS.reshape(-1), WIDE[:, ::2], WIDE.reshape(-1)[::2], TALL[:, :, 1], PROBS.tobytes()],
    ids=["rows", "flat", "stepped_rows", "stepped", "plane", "bytes"],
)
def test_modbases_of_any_step(probs):
    expected = expected_modbases(SEQUENCE, PROBS, 200)
    assert expected.count(",") > 20
    assert modbases(probs) == expected


def test_modbases_with_context():
    probs = numpy.zeros((6, 5), numpy.uint8)
    probs[1, 2], probs[3, 2] = 200, 50
    call = ("ACGCGA", "ACmGT", "5mC", probs, 100)
    assert generate_modbase_string(*call) == "Mm:Z:C+m,0;\tMl:B:C,200"
    expected = "Mm:Z:C+m?,0,0;\tMl:B:C,200,50"
    assert generate_modbase_string(*call, "_:XG:_:_") == expected
    assert generate_modbase_string(*call, context="_:XG:_:_") == expected


def test_modbases_of_few_bases_and_channels():
    one = numpy.array([[9]], numpy.uint8)
    assert generate_modbase_string("A", "A", "", one, 0) == "Mm:Z:\tMl:B:C"
    column = numpy.array([[1, 2], [3, 4]], numpy.uint8)[:, 1:]
    assert generate_modbase_string("AC", "A", "", column, 0) == "Mm:Z:\tMl:B:C"
    row = numpy.array([[1, 0, 2, 0]], numpy.uint8)[:, ::2]
    assert generate_modbase_string("A", "Aa", "6mA", row, 2) == "Mm:Z:A+a,0;\tMl:B:C,2"
    with pytest.raises(TypeError, match="negative steps"):
        generate_modbase_string("AC", "A", "", column[::-1], 0)
    none = numpy.zeros((0, 2), numpy.uint8)
    assert generate_modbase_string("", "Aa", "6mA", none, 2) == "Mm:Z:A+a;\tMl:B:C"


ROWS = (
    "probs: rows that do not follow each other cannot be passed on: copy them with "
    "numpy.ascontiguousarray()"
)


@pytest.mark.parametrize(
    "probs, message",
    [
        (WIDE[:, :6], ROWS),
        (numpy.asfortranarray(PROBS), ROWS),
        (PROBS[::-1], ROWS),
        (numpy.broadcast_to(PROBS[0], (150, 6)), ROWS),
        (
            PROBS[:, ::-1],
            "probs: elements at negative steps cannot be passed on: copy them with "
            "numpy.ascontiguousarray()",
        ),
        (TALL, "probs: one or two dimensions are needed, not 3"),
        (
            PROBS.astype(float),
            "probs: an array of uint8 is needed, not of float64: convert it with "
            "astype(numpy.uint8)",
        ),
        (PROBS.tolist(), "probs: an array of uint8 is needed, not list"),
    ],
)
def test_probs_that_cannot_be_passed_on(probs, message):
    with pytest.raises(TypeError) as caught:
        modbases(probs)
    assert str(caught.value) == message


def test_probs_after_the_advised_copy():
    wide = numpy.zeros((150, 9), numpy.uint8)
    wide[:, :6] = PROBS
    probs = numpy.ascontiguousarray(wide[:, :6])
    assert modbases(probs) == expected_modbases(SEQUENCE, PROBS, 200)


def test_probs_with_a_turned_shape():
    with pytest.raises(ValueError) as caught:
        modbases(numpy.ascontiguousarray(PROBS.T))
    assert str(caught.value) == "probs: shape (6, 150) is not (150, 6): bases x channels"


@pytest.mark.parametrize(
    "changed, error_class, message",
    [
        (dict(probs=PROBS[:-1]), tesk_bam.Error, MISMATCH),
        (dict(probs=PROBS.reshape(-1)[:-1]), tesk_bam.Error, MISMATCH),
        (dict(long_names="5mC 5fC"), tesk_bam.Error, "Unknown modified base abbreviation: 5fC"),
        (dict(context="x"), tesk_bam.Error, "Invalid base modification context string."),
        (dict(sequence="N" + SEQUENCE[1:]), tesk_bam.InvalidValueError, "map::at"),
        (dict(alphabet="mACGTT"), tesk_bam.InvalidValueError, "map::at"),
        (dict(threshold=-1), OverflowError, "threshold: -1 is not in 0 to 255"),
        (dict(threshold=256), OverflowError, "threshold: 256 is not in 0 to 255"),
    ],
)
def test_modbase_messages(changed, error_class, message):
    arguments = dict(
        sequence=SEQUENCE, alphabet="ACmhGT", long_names="5mC 5hmC", probs=PROBS, threshold=1
    )
    with pytest.raises(error_class) as caught:
        generate_modbase_string(**{**arguments, **changed})
    assert type(caught.value) is error_class
    assert str(caught.value) == message


def test_channel_names():
    codes = {"6mA": "a", "5mC": "m", "5hmC": "h", "5fc": "f", "5caC": "c", "8oxoG": "o",
             "5hmU": "g", "5fU": "e", "5caU": "b", "123": "123", "": ""}  # fmt: skip
    for name, code in codes.items():
        assert tesk_bam.get_modbase_channel_name(name) == code
    with pytest.raises(tesk_bam.Error, match="^Unknown modified base abbreviation: 5fC$"):
        tesk_bam.get_modbase_channel_name("5fC")


# --- No copies --------------------------------------------------------------------

# The peak of a process's memory before and after calls on an array of 200 MB in a file
# without contents. No channel is a modification, so no element is needed.
MEASURE = """
    import sys
    import numpy
    import tesk_bam

    probs = numpy.memmap(sys.argv[1], numpy.uint8, "r", shape=(1000, 200_000))
    calls = dict(
        rows=lambda: (probs, 200_000),
        flat=lambda: (probs.reshape(-1), 200_000),
        stepped=lambda: (probs[:, ::2], 100_000),
        copied=lambda: (probs.copy(), 200_000),
    )
    before = peak_mb()
    array, n_channels = calls[sys.argv[2]]()
    assert tesk_bam.generate_modbase_string("ACGT" * 250, "A" * n_channels, "", array, 1)
    print(peak_mb() - before)
"""


@pytest.mark.parametrize(
    "kind, least, most",
    [("rows", 0, 20), ("flat", 0, 20), ("stepped", 0, 20), ("copied", 150, 400)],
)
def test_array_of_200_mb_is_not_copied(tmp_path, kind, least, most):
    path = tmp_path / "probs"
    with open(path, "wb") as file:
        file.truncate(200_000_000)
    (grown_mb,) = map(float, run_measured(MEASURE, path, kind))
    assert least <= grown_mb <= most


# --- Contexts ---------------------------------------------------------------------


def test_context_text_form():
    context = tesk_bam.BaseModContext()
    assert context.encode() == "_:_:_:_"
    assert context.decode("_:XG:_:AX")
    assert (context.motif("C"), context.motif_offset("C")) == ("CG", 0)
    assert (context.motif("T"), context.motif_offset("T")) == ("AT", 1)
    assert (context.motif("A"), context.motif_offset("A")) == ("", 0)
    assert context.encode() == "_:XG:_:AX"
    assert repr(context) == "BaseModContext('_:XG:_:AX')"
    assert tesk_bam.BaseModContext("_:XG:_:AX").encode() == "_:XG:_:AX"
    assert not context.decode("_:XG:_")
    assert context.encode() == "_:XG:_:AX"
    assert not context.decode("X:CG:_:_")
    assert context.motif("A") == "A"
    with pytest.raises(tesk_bam.Error, match="^Invalid base modification context string.$"):
        tesk_bam.BaseModContext("x")


def test_context_is_set_by_motif():
    context = tesk_bam.BaseModContext()
    context.set_context("CG", 1)
    assert context.encode() == "_:_:CX:_"
    with pytest.raises(tesk_bam.Error, match="^Invalid motif string 'NG'.$"):
        context.set_context("NG", 0)
    with pytest.raises(tesk_bam.InvalidValueError):
        context.set_context("CG", 2)
    with pytest.raises(OverflowError):
        context.set_context("CG", -1)
    assert context.encode() == "_:_:CX:_"


@pytest.mark.parametrize("member", ["motif", "motif_offset"])
def test_context_of_another_letter(member):
    call = getattr(tesk_bam.BaseModContext(), member)
    with pytest.raises(tesk_bam.InvalidValueError, match="^map::at$"):
        call("N")
    for text in ("", "AC", "\u00e9"):
        with pytest.raises(ValueError) as caught:
            call(text)
        assert str(caught.value) == f"base: one letter is needed, not '{text}'"


def test_context_mask():
    context = tesk_bam.BaseModContext("_:XG:_:_")
    mask = context.get_sequence_mask("CGCGA")
    assert (mask.dtype, mask.tolist()) == (numpy.int32, [1, 0, 1, 0, 0])
    assert context.get_sequence_mask("").size == 0
    with pytest.raises(tesk_bam.InvalidValueError, match="^map::at$"):
        context.get_sequence_mask("ACNT")


def test_context_mask_by_threshold():
    context = tesk_bam.BaseModContext()
    probs = numpy.zeros((4, 5), numpy.uint8)
    probs[1, 2], probs[2, 2], probs[3, 2] = 128, 127, 255
    mask = numpy.zeros(8, numpy.int32)[::2]
    mask[0] = 1
    context.update_mask(mask, "ACCG", "ACmGT", probs, 128)
    assert mask.tolist() == [1, 1, 0, 0]


@pytest.mark.parametrize(
    "mask, message",
    [
        ([0], "mask: an array of int32 is needed"),
        (numpy.zeros(4), "mask: an array of int32 is needed"),
        (numpy.zeros((4, 1), numpy.int32), "mask: one dimension that can be written to is needed"),
        (
            numpy.broadcast_to(numpy.int32(0), 4),
            "mask: one dimension that can be written to is needed",
        ),
    ],
)
def test_context_mask_that_is_none(mask, message):
    probs = numpy.zeros((4, 5), numpy.uint8)
    with pytest.raises(TypeError) as caught:
        tesk_bam.BaseModContext().update_mask(mask, "ACCG", "ACmGT", probs, 128)
    assert str(caught.value) == message


def test_context_mask_messages():
    context = tesk_bam.BaseModContext()
    mask = numpy.zeros(3, numpy.int32)
    probs = numpy.full((4, 5), 255, numpy.uint8)
    with pytest.raises(tesk_bam.InvalidValueError) as caught:
        context.update_mask(mask, "ACCG", "ACmGT", probs, 0)
    assert str(caught.value) == "Mask or probabilities shorter than the sequence"
    with pytest.raises(tesk_bam.InvalidValueError, match="^map::at$"):
        context.update_mask(mask, "ACC", "mACGT", probs[:3], 0)
    assert mask.tolist() == [0, 0, 0]
