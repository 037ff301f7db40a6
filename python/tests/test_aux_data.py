"""Optional fields and their values."""

import struct

import numpy
import pytest
from bam_reader import BamFile, make_bam, make_record

import tesk_bam
from tesk_bam import AuxData

# Tag, type, value in Python, bytes in a BAM file, text of the SAM line.
FIELDS = [
    ("XA", "A", "x", b"x", "A:x"),
    ("Xc", "c", -128, b"\x80", "i:-128"),
    ("XC", "C", 255, b"\xff", "i:255"),
    ("Xs", "s", -32768, b"\0\x80", "i:-32768"),
    ("XS", "S", 65535, b"\xff\xff", "i:65535"),
    ("Xi", "i", -(2**31), b"\0\0\0\x80", "i:-2147483648"),
    ("XI", "I", 2**32 - 1, b"\xff" * 4, "i:4294967295"),
    ("Xf", "f", 0.25, struct.pack("<f", 0.25), "f:0.25"),
    ("XZ", "Z", "a text: é", "a text: é\0".encode(), "Z:a text: é"),
    ("XH", "H", "1AE3", b"1AE3\0", "H:1AE3"),
]
ARRAYS = [
    ("c", numpy.int8, [-128, 127]),
    ("C", numpy.uint8, [0, 255]),
    ("s", numpy.int16, [-32768, 32767]),
    ("S", numpy.uint16, [0, 65535]),
    ("i", numpy.int32, [-(2**31), 2**31 - 1]),
    ("I", numpy.uint32, [0, 2**32 - 1]),
]


def read(tmp_path, aux_data):
    path = tmp_path / "in.bam"
    path.write_bytes(make_bam("", [], make_record("r", aux_data)))
    handler = tesk_bam.BAMFileHandler()
    handler.read_from_bam_file(path)
    return handler


@pytest.mark.parametrize("tag, letter, value, data, text", FIELDS)
def test_value_of_every_type(tmp_path, tag, letter, value, data, text):
    handler = read(tmp_path, (tag + letter).encode() + data)
    fields = handler.records[0].aux_data
    assert fields[tag] == value
    assert type(fields[tag]) is type(value)
    assert (fields[0].tag, fields[0].type, fields[0].value) == (tag, letter, value)
    assert fields[0] == AuxData(tag, letter, value)
    assert repr(fields) == f"[AuxData('{tag}', '{letter}', {value!r})]"
    assert handler[0].split("\t")[11] == f"{tag}:{text}"


@pytest.mark.parametrize("letter, dtype, values", ARRAYS)
def test_array_of_every_type(tmp_path, letter, dtype, values):
    data = numpy.array(values, dtype).tobytes()
    handler = read(tmp_path, f"XBB{letter}".encode() + struct.pack("<i", 2) + data)
    array = handler.records[0].aux_data["XB"]
    assert (array.dtype, array.tolist()) == (dtype, values)
    array[:] = 0  # a copy
    assert handler.records[0].aux_data["XB"].tolist() == values
    assert handler.records[0].aux_data[0] == AuxData("XB", "B", numpy.array(values, dtype))
    assert AuxData("XB", "B", array) != handler.records[0].aux_data[0]


def test_array_of_floats_and_of_nothing():
    handler = tesk_bam.BAMFileHandler()
    line = "r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXB:B:f,0.5,-1\tXE:B:s\tXU:B:z"
    fields = handler.parse_sam_line_to_bam_record(line).aux_data
    assert (fields["XB"].dtype, fields["XB"].tolist()) == (numpy.float32, [0.5, -1])
    assert (fields["XE"].dtype, fields["XE"].size) == (numpy.int16, 0)
    assert fields["XU"].size == 0  # of an unknown type


@pytest.mark.parametrize("tag, letter, value, data, text", FIELDS)
def test_fields_that_are_set_are_written(tmp_path, tag, letter, value, data, text):
    handler = read(tmp_path, b"")
    record = handler.records[0]
    record.aux_data.append(AuxData(tag, letter, value))
    handler.update_sam_line(record)
    assert record.sam_line.split("\t")[11] == f"{tag}:{text}"
    if letter in "sS":
        return  # the library does not write them
    handler.write_to_bam_file(tmp_path / "out.bam")
    assert BamFile(tmp_path / "out.bam").records[0]["aux_data"] == [(tag, letter, value)]


@pytest.mark.parametrize("letter, dtype, values", [*ARRAYS, ("f", numpy.float32, [0.5, -1.0])])
def test_arrays_that_are_set_are_written(tmp_path, letter, dtype, values):
    handler = read(tmp_path, b"")
    matrix = numpy.zeros((2, 3), dtype)
    matrix[:, 1] = values
    handler.records[0].aux_data.append(AuxData("XB", "B", matrix[:, 1]))
    handler.records[0].aux_data.append(AuxData("XR", "B", matrix[::-1, 1]))
    handler.write_to_bam_file(tmp_path / "out.bam")
    assert BamFile(tmp_path / "out.bam").records[0]["aux_data"] == [
        ("XB", "B", (letter, values)),
        ("XR", "B", (letter, values[::-1])),
    ]


RANGES = [
    ("c", -128, 127),
    ("C", 0, 255),
    ("s", -32768, 32767),
    ("S", 0, 65535),
    ("i", -(2**31), 2**31 - 1),
    ("I", 0, 2**32 - 1),
]


@pytest.mark.parametrize("letter, least, most", RANGES)
def test_integer_takes_its_range(letter, least, most):
    for value in (least, most):
        assert AuxData("XX", letter, value).value == value
    for value in (least - 1, most + 1):
        with pytest.raises(OverflowError) as caught:
            AuxData("XX", letter, value)
        assert str(caught.value) == f"XX: {value} is not in {least} to {most}"
    with pytest.raises(TypeError):
        AuxData("XX", letter, 0.5)


ARRAY_NEEDED = "XX: an array of int8, uint8, int16, uint16, int32, uint32 or float32 is needed"


@pytest.mark.parametrize(
    "arguments, error_class, message",
    [
        (("X", "i", 1), ValueError, "'X' is no tag of two characters"),
        (("XXX", "i", 1), ValueError, "'XXX' is no tag of two characters"),
        (("X\t", "i", 1), ValueError, "'X\t' is no tag of two characters"),
        (("\u00e9", "i", 1), ValueError, "'\u00e9' is no tag of two characters"),
        (("XX", "Q", 1), ValueError, "XX: 'Q' is none of the types AcCsSiIfZHB"),
        (("XX", "", 1), ValueError, "XX: '' is none of the types AcCsSiIfZHB"),
        (("XX", "ii", 1), ValueError, "XX: 'ii' is none of the types AcCsSiIfZHB"),
        (("XX", "A", "ab"), ValueError, "XX: one character is needed, not 2"),
        (("XX", "A", ""), ValueError, "XX: one character is needed, not 0"),
        (("XX", "Z", "a\tb"), ValueError, "XX: a text cannot hold NUL, tab or newline"),
        (("XX", "Z", "a\nb"), ValueError, "XX: a text cannot hold NUL, tab or newline"),
        (("XX", "H", "a\0b"), ValueError, "XX: a text cannot hold NUL, tab or newline"),
        (("XX", "Z", b"a"), TypeError, "XX: a str is needed, not bytes"),
        (("XX", "f", "1"), TypeError, "must be real number, not str"),
        (("XX", "B", [1]), TypeError, ARRAY_NEEDED + ", not list"),
        (("XX", "B", numpy.zeros(1)), TypeError, ARRAY_NEEDED + ", not of float64"),
        (("XX", "B", numpy.zeros(1, ">i4")), TypeError, ARRAY_NEEDED + ", not of >i4"),
        (("XX", "B", numpy.zeros((1, 1), "i4")), TypeError, "XX: one dimension is needed, not 2"),
    ],
)
def test_field_that_is_none(arguments, error_class, message):
    with pytest.raises(error_class) as caught:
        AuxData(*arguments)
    assert str(caught.value) == message


def test_field_does_not_change():
    field = AuxData(tag="NM", type="i", value=1)
    for name in ("tag", "type", "value"):
        with pytest.raises(AttributeError):
            setattr(field, name, "XX")
    assert field != AuxData("NM", "I", 1)
    assert field != AuxData("NX", "i", 1)
    assert field != AuxData("NM", "i", 2)
    assert field != 1
    with pytest.raises(TypeError, match="unhashable"):
        hash(field)


def test_float_is_rounded_to_single_precision():
    assert AuxData("XX", "f", 0.1).value == numpy.float32(0.1)
    assert AuxData("XX", "f", 2).value == 2.0


@pytest.fixture
def fields():
    handler = tesk_bam.BAMFileHandler()
    line = "r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tNM:i:1\tXX:Z:a\tXX:Z:b\tXN:i:0"
    return handler.parse_sam_line_to_bam_record(line).aux_data


def test_list_by_position_and_tag(fields):
    assert len(fields) == 4
    assert [field.tag for field in fields] == ["NM", "XX", "XX", "XN"]
    assert (fields[0].tag, fields[-1].tag) == ("NM", "XN")
    assert (fields["NM"], fields["XX"]) == (1, "a")  # the first one
    assert ("XX" in fields, "YY" in fields) == (True, False)
    assert (fields.get("XN"), fields.get("YY"), fields.get("YY", 7)) == (0, None, 7)


def test_list_without_such_a_field(fields):
    for index in (4, -5):
        with pytest.raises(IndexError, match="^optional field index out of range$"):
            fields[index]
        with pytest.raises(IndexError, match="^optional field index out of range$"):
            del fields[index]
    with pytest.raises(KeyError) as caught:
        fields["YY"]
    assert caught.value.args == ("YY",)
    with pytest.raises(KeyError):
        del fields["YY"]
    with pytest.raises(TypeError):
        fields[0.5]


def test_list_deletes(fields):
    del fields["XX"]
    assert fields["XX"] == "b"
    del fields[0]
    assert [field.tag for field in fields] == ["XX", "XN"]
    del fields[-1]
    assert repr(fields) == "[AuxData('XX', 'Z', 'b')]"
