"""BamRecord and the list of records: fields, changes, how long a record lives."""

import copy
import gc

import numpy
import pytest
from bam_reader import BamFile
from conftest import LINES

import tesk_bam

MOVED = "^The handler's records have changed: take the record out of the list again$"

NUMBERS = [
    ("refID", -1, 2**31 - 1),
    ("pos", -1, 2**31 - 1),
    ("mapq", 0, 255),
    ("flag", 0, 65535),
    ("next_refID", -1, 2**31 - 1),
    ("next_pos", -1, 2**31 - 1),
    ("tlen", -(2**31), 2**31 - 1),
]


# --- Fields -----------------------------------------------------------------------


def test_new_record_has_defaults():
    record = tesk_bam.BamRecord()
    assert [getattr(record, name) for name, _, _ in NUMBERS] == [0] * len(NUMBERS)
    assert (record.l_seq, record.ref_length, record.bin) == (0, 0, 0)
    assert (record.read_name, record.seq, record.sam_line) == ("", "", "")
    assert (record.cigar, record.cigar_string) == ([], "*")
    assert (record.qual, record.qual_string) == (b"", "*")
    assert len(record.aux_data) == 0


def test_fields_of_a_line(handler):
    record = handler.records[0]
    assert (record.read_name, record.flag, record.refID, record.pos) == ("r1", 99, 1, 100)
    assert (record.mapq, record.next_refID, record.next_pos, record.tlen) == (60, 1, 300, 206)
    assert record.cigar == [("M", 3), ("I", 1), ("M", 2)]
    assert (record.cigar_string, record.ref_length, record.bin) == ("3M1I2M", 5, 4681)
    assert (record.seq, record.l_seq) == ("ACGTAC", 6)
    assert (record.qual, record.qual_string) == (bytes([40, 40, 40, 40, 2, 0]), "IIII#!")
    assert record.sam_line == LINES[0]
    assert repr(record) == "<tesk_bam.BamRecord 'r1': reference 1, position 100, 6 bases>"


def test_missing_columns_of_a_line(handler):
    assert handler.records[1].qual == b"\xff" * 4
    assert handler.records[1].qual_string == "*"
    record = handler.records[2]
    assert (record.refID, record.pos, record.next_pos) == (-1, -1, -1)
    assert (record.cigar, record.seq, record.qual, record.ref_length) == ([], "", b"", 1)


@pytest.mark.parametrize("name, least, most", NUMBERS)
def test_number_takes_its_range(name, least, most):
    record = tesk_bam.BamRecord()
    for value in (least, most, numpy.int64(1)):
        setattr(record, name, value)
        assert getattr(record, name) == value
    for value in (least - 1, most + 1, 2**80):
        with pytest.raises(OverflowError) as caught:
            setattr(record, name, value)
        assert str(caught.value) == f"{name}: {value} is not in {least} to {most}"
    with pytest.raises(TypeError):
        setattr(record, name, 1.0)
    assert getattr(record, name) == 1


@pytest.mark.parametrize("name", ["bin", "l_seq", "ref_length", "sam_line", "aux_data"])
def test_derived_field_cannot_be_set(name):
    record = tesk_bam.BamRecord()
    with pytest.raises(AttributeError):
        setattr(record, name, getattr(record, name))


def test_pos_sets_bin(handler):
    record = handler.records[0]
    record.pos = 16384
    assert record.bin == 4682
    record.pos = 16382  # five bases: across the boundary
    assert record.bin == 585


def test_cigar_sets_length_and_bin(handler):
    record = handler.records[1]
    record.cigar = [("S", 1), ("=", 2), ("N", 16384), ("X", numpy.int32(1))]
    assert record.cigar_string == "1S2=16384N1X"
    assert (record.ref_length, record.bin) == (16387, 585)
    record.cigar_string = "2M2I"
    assert record.cigar == [("M", 2), ("I", 2)]
    for none in ([], "*", ""):
        if isinstance(none, list):
            record.cigar = none
        else:
            record.cigar_string = none
        assert (record.cigar, record.cigar_string, record.ref_length) == ([], "*", 1)


@pytest.mark.parametrize(
    "value, error_class, message",
    [
        ([("Q", 1)], ValueError, "cigar: 'Q' is none of the operations MIDNSHP=X"),
        ([("MM", 1)], ValueError, "cigar: 'MM' is none of the operations MIDNSHP=X"),
        ([("M", -1)], OverflowError, "cigar: -1 is not in 0 to 268435455"),
        ([("M", 2**28)], OverflowError, "cigar: 268435456 is not in 0 to 268435455"),
        ([(1, "M")], TypeError, "cigar: a pair of operation and length is needed, not (1, 'M')"),
        (["3M1"], TypeError, "cigar: a pair of operation and length is needed, not '3M1'"),
        ([3], TypeError, "cigar: a pair of operation and length is needed, not 3"),
    ],
)
def test_cigar_that_is_none(handler, value, error_class, message):
    record = handler.records[0]
    with pytest.raises(error_class) as caught:
        record.cigar = value
    assert str(caught.value) == message
    assert record.cigar_string == "3M1I2M"


@pytest.mark.parametrize(
    "text, error_class, message",
    [
        ("M", ValueError, "cigar_string: 'M' is no CIGAR"),
        ("3", ValueError, "cigar_string: '3' is no CIGAR"),
        ("3M4", ValueError, "cigar_string: '3M4' is no CIGAR"),
        ("-3M", ValueError, "cigar_string: '-3M' is no CIGAR"),
        ("3Q", ValueError, "cigar: 'Q' is none of the operations MIDNSHP=X"),
        ("268435456M", OverflowError, "cigar: 268435456 is not in 0 to 268435455"),
    ],
)
def test_cigar_string_that_is_none(handler, text, error_class, message):
    record = handler.records[0]
    with pytest.raises(error_class) as caught:
        record.cigar_string = text
    assert str(caught.value) == message
    assert record.cigar_string == "3M1I2M"


def test_unknown_operation_of_a_line_is_shown():
    record = tesk_bam.BAMFileHandler().parse_sam_line_to_bam_record(
        "r\t0\t*\t1\t0\t3Q\t*\t0\t0\tACG\tIII"
    )
    assert (record.cigar, record.cigar_string) == ([("?", 2**28 - 1)], "268435455?")


@pytest.mark.parametrize("n_ops", [65535, 65536])
def test_long_cigar_is_whole_and_goes_through_files(handler, tmp_path, n_ops):
    cigar = [("M", 1), ("I", 1)] * (n_ops // 2) + [("M", 1)] * (n_ops % 2)
    record = handler.records[0]
    record.seq = "A" * n_ops
    record.cigar = cigar
    assert record.cigar == cigar
    assert ("CG" in record.aux_data) == (n_ops > 65535)
    assert record.ref_length == (n_ops + 1) // 2
    handler.update_sam_line(record)
    assert record.sam_line.split("\t")[5] == "1M1I" * (n_ops // 2) + "1M" * (n_ops % 2)
    handler.write_to_bam_file(tmp_path / "long.bam")
    handler.read_from_bam_file(tmp_path / "long.bam")
    assert handler.records[0].cigar == cigar


def test_long_cigar_can_be_changed(handler):
    record = handler.records[0]
    n_fields = len(record.aux_data)
    record.seq = "A" * 70000
    record.cigar = [("M", 1), ("I", 1)] * 35000
    for n_bases in (69999, 70001):  # its placeholder counts the bases
        record.seq = "C" * n_bases
        assert record.cigar == [("M", 1), ("I", 1)] * 35000
        assert len(record.aux_data) == n_fields + 1
    record.cigar = [("M", 70001)]
    assert (record.cigar, len(record.aux_data)) == ([("M", 70001)], n_fields)


def test_seq_sets_the_number_of_bases(handler):
    record = handler.records[0]
    record.seq = "TTTTTT"
    assert (record.seq, record.qual_string) == ("TTTTTT", "IIII#!")  # as many as before
    record.seq = "=ACMGRSVTWYHKDBNU"
    assert (record.seq, record.l_seq) == ("=ACMGRSVTWYHKDBNT", 17)
    assert record.qual == b"\xff" * 17
    for none in ("*", ""):
        record.seq = none
        assert (record.seq, record.l_seq, record.qual) == ("", 0, b"")


def test_seq_with_another_letter(handler):
    record = handler.records[0]
    with pytest.raises(tesk_bam.Error, match="^Invalid sequence code detected$"):
        record.seq = "aC"
    assert (record.seq, record.l_seq, record.qual_string) == ("ACGTAC", 6, "IIII#!")


def test_qual_takes_any_array(handler):
    record = handler.records[1]
    matrix = numpy.arange(16, dtype=numpy.uint8).reshape(4, 4)
    for value, expected in [
        (b"\x00\x01\x5d\x03", bytes([0, 1, 93, 3])),
        (bytearray(4), bytes(4)),
        (matrix[:, 1], bytes([1, 5, 9, 13])),
        (None, b"\xff" * 4),
        (b"\xff" * 4, b"\xff" * 4),
    ]:
        record.qual = value
        assert record.qual == expected
    assert numpy.frombuffer(record.qual, numpy.uint8).tolist() == [255] * 4


@pytest.mark.parametrize(
    "name, value, error_class, message",
    [
        ("qual", b"123", ValueError, "qual: 3 qualities for 4 bases"),
        ("qual", b"123\x5e", ValueError, "qual: 94 is above 93"),
        ("qual", b"\xff\xff\xff\x00", ValueError, "qual: 255 is above 93"),
        ("qual", "IIII", TypeError, "qual: an array of uint8 is needed, not str"),
        ("qual_string", "III", ValueError, "qual_string: 3 qualities for 4 bases"),
        ("qual_string", "III ", ValueError, "qual_string: a quality is none of '!' to '~'"),
        ("qual_string", "III\x7f", ValueError, "qual_string: a quality is none of '!' to '~'"),
    ],
)
def test_qualities_that_are_none(handler, name, value, error_class, message):
    record = handler.records[1]
    record.qual_string = "!5I~"
    with pytest.raises(error_class) as caught:
        setattr(record, name, value)
    assert str(caught.value) == message
    assert (record.qual_string, record.qual) == ("!5I~", bytes([0, 20, 40, 93]))


@pytest.mark.parametrize("name", ["", "a b", "a\tb", "\n", "x" * 255])
def test_read_name_that_is_none(handler, name):
    record = handler.records[0]
    with pytest.raises(ValueError, match="^read_name: 1 to 254 bytes without white space"):
        record.read_name = name
    record.read_name = "x" * 254
    assert record.read_name == "x" * 254


def test_changes_are_written(handler, tmp_path):
    record = handler.records[1]
    record.read_name = "changed"
    record.flag |= 1024
    record.seq = "TTT"
    record.qual_string = "!!~"
    record.cigar = [("S", 1), ("M", 2)]
    record.aux_data.append(tesk_bam.AuxData("XA", "A", "x"))
    assert record.sam_line == LINES[1]
    handler.update_sam_line(record)
    assert record.sam_line == "changed\t1040\tchr1\t11\t7\t1S2M\t*\t0\t0\tTTT\t!!~\tXA:A:x"
    handler.write_to_bam_file(tmp_path / "out.bam")
    written = BamFile(tmp_path / "out.bam").records[1]
    assert (written["read_name"], written["flag"], written["seq"]) == ("changed", 1040, "TTT")
    assert (written["qual"], written["cigar"]) == (bytes([0, 0, 93]), [("S", 1), ("M", 2)])
    assert written["aux_data"] == [("XA", "A", "x")]


def test_update_sam_line_without_such_a_reference(handler):
    record = handler.records[0]
    record.refID = 2
    with pytest.raises(tesk_bam.Error, match="^Invalid next segment ref ID detected$"):
        handler.update_sam_line(record)
    assert record.sam_line == LINES[0]


def test_equal_records_have_equal_fields(handler, tmp_path):
    handler.write_to_bam_file(tmp_path / "out.bam")
    again = tesk_bam.BAMFileHandler()
    again.read_from_bam_file(tmp_path / "out.bam")
    assert list(again.records) == list(handler.records)
    assert handler.records[0] != handler.records[1]
    assert handler.records[0] != LINES[0]
    for name, _, _ in NUMBERS:
        changed = handler.records[0].copy()
        setattr(changed, name, getattr(changed, name) + 1)
        assert changed != handler.records[0], name
    for name, value in [("seq", "ACGTAA"), ("qual_string", "*"), ("read_name", "x")]:
        changed = handler.records[0].copy()
        setattr(changed, name, value)
        assert changed != handler.records[0], name
    changed = handler.records[0].copy()
    changed.aux_data.append(tesk_bam.AuxData("XX", "i", 1))
    assert changed != handler.records[0]
    with pytest.raises(TypeError, match="unhashable"):
        hash(handler.records[0])


# --- The list ---------------------------------------------------------------------


def names_of(records):
    return [record.read_name for record in records]


def test_list_has_positions_and_slices(handler):
    records = handler.records
    assert len(records) == 3
    assert names_of(records) == ["r1", "r2", "r3"]
    assert (records[0].read_name, records[-1].read_name) == ("r1", "r3")
    assert names_of(records[1:]) == ["r2", "r3"]
    assert names_of(records[::-2]) == ["r3", "r1"]
    assert names_of(reversed(records)) == ["r3", "r2", "r1"]
    for index in (3, -4):
        with pytest.raises(IndexError, match="^record index out of range$"):
            records[index]
    with pytest.raises(TypeError):
        records["r1"]
    with pytest.raises(ValueError, match="slice step cannot be zero"):
        records[::0]


def test_list_is_not_copied(handler):
    handler.records[0].flag = 7
    assert handler.records[0].flag == 7
    handler.records[0:1][0].flag = 8
    assert handler.records[0].flag == 8


def test_append_copies_a_record(handler):
    handler.sort()
    handler.records.append(handler.records[0])
    assert not handler.has_sort_order
    handler.records[3].flag = 5
    assert (handler.records[0].flag, handler.records[3].flag) == (16, 5)
    assert handler[3] == handler[0] == LINES[1]
    other = tesk_bam.BAMFileHandler()
    other.records.append(handler.records[3])
    handler.reset()
    assert (other.records[0].flag, other[0]) == (5, LINES[1])


SLICES = [slice(1, 2), slice(None, None, 2), slice(None, None, -1), slice(4, 0, -3), slice(3, 3),
          slice(-2, None), slice(1, 100, 2)]  # fmt: skip


@pytest.mark.parametrize("which", [0, 4, -1, -5, *SLICES])
def test_delete_does_what_it_does_to_lists(handler, which):
    for name in "de":
        record = tesk_bam.BamRecord()
        record.read_name = name
        handler.records.append(record)
    names = names_of(handler.records)
    del names[which]
    del handler.records[which]
    assert names_of(handler.records) == names


def test_delete_where_there_is_none(handler):
    for index in (3, -4):
        with pytest.raises(IndexError, match="^record index out of range$"):
            del handler.records[index]
    assert len(handler.records) == 3


# --- Lifetimes --------------------------------------------------------------------


def test_record_keeps_its_handler(handler):
    other = tesk_bam.BAMFileHandler()
    other.add_header_lines(handler.header)
    for line in LINES:
        other.add_alignment_sam(line)
    record, fields, records = other.records[0], other.records[0].aux_data, other.records
    references = other.references
    del other
    gc.collect()
    assert (record.sam_line, fields["NM"], names_of(records)) == (LINES[0], 1, ["r1", "r2", "r3"])
    assert references[0].name == "chr1"
    record.seq = "A" * 1000
    assert record.seq == "A" * 1000


def test_record_is_good_while_the_list_grows(handler):
    record, fields = handler.records[0], handler.records[0].aux_data
    for _ in range(1000):
        handler.add_alignment_sam(LINES[1])
    handler.records.append(handler.records[1])
    assert (record.sam_line, fields["NM"]) == (LINES[0], 1)
    record.flag = 3
    assert handler.records[0].flag == 3


def changes(sam_file, tmp_path):
    def write_with_index(handler):
        handler.write_to_bam_file(tmp_path / "out.bam", True)

    def read_bam(handler):
        bam = tmp_path / "in.bam"
        other = tesk_bam.BAMFileHandler()
        other.write_to_bam_file(bam)
        handler.read_from_bam_file(bam)

    def read_missing(handler):
        with pytest.raises(tesk_bam.Error):
            handler.read_from_sam_file(tmp_path / "none")

    def delete(handler):
        del handler.records[2]

    def delete_slice(handler):
        del handler.records[2:]

    return [
        tesk_bam.BAMFileHandler.sort,
        tesk_bam.BAMFileHandler.reset,
        lambda handler: handler.read_from_sam_file(sam_file),
        read_missing,
        read_bam,
        write_with_index,
        delete,
        delete_slice,
    ]


@pytest.mark.parametrize("number", range(8))
def test_record_cannot_be_used_once_records_have_moved(handler, sam_file, tmp_path, number):
    record, fields = handler.records[0], handler.records[0].aux_data
    kept = record.copy()
    changes(sam_file, tmp_path)[number](handler)
    for _ in range(3):  # so that there is a record at every place again
        handler.add_alignment_sam(LINES[1])
    uses = [
        lambda: record.pos,
        lambda: record.cigar,
        lambda: record.sam_line,
        lambda: record.copy(),
        lambda: repr(record),
        lambda: record == kept,
        lambda: kept == record,
        lambda: len(fields),
        lambda: fields["NM"],
        lambda: handler.update_sam_line(record),
        lambda: handler.records.append(record),
        lambda: setattr(record, "pos", 1),
        lambda: setattr(record, "seq", "A"),
        lambda: setattr(record, "qual", None),
        lambda: fields.append(tesk_bam.AuxData("XX", "i", 1)),
    ]
    for use in uses:
        with pytest.raises(tesk_bam.Error, match=MOVED):
            use()
    assert (kept.read_name, kept.sam_line, kept.aux_data["NM"]) == ("r1", LINES[0], 1)


def test_record_is_good_where_nothing_moved(handler, tmp_path):
    record = handler.records[0]
    handler.write_to_bam_file(tmp_path / "out.bam")
    handler.write_to_sam_file(tmp_path / "out.sam")
    with pytest.raises(tesk_bam.Error):
        handler.add_alignment_sam("x")
    del handler.records[3:]
    assert record.read_name == "r1"


@pytest.mark.parametrize("copy_of", [tesk_bam.BamRecord.copy, copy.copy, copy.deepcopy])
def test_copy_is_a_record_of_its_own(handler, copy_of):
    record = copy_of(handler.records[0])
    assert record == handler.records[0]
    record.flag = 1
    record.aux_data.append(tesk_bam.AuxData("XX", "i", 1))
    assert (handler.records[0].flag, len(handler.records[0].aux_data)) == (99, 3)
    handler.reset()
    assert (record.flag, record.sam_line) == (1, LINES[0])


def test_value_of_a_record_outlives_it(handler):
    qualities = numpy.frombuffer(handler.records[0].qual, numpy.uint8)
    handler.add_alignment_sam("r\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*\tXB:B:I,7,8")
    array = handler.records[3].aux_data["XB"]
    handler.reset()
    gc.collect()
    assert (qualities.tolist(), array.tolist()) == ([40, 40, 40, 40, 2, 0], [7, 8])


def test_change_of_the_list_from_within_a_conversion(handler):
    """Python code that runs inside a call finds no way to a record that is gone."""

    class Position:
        def __index__(self):
            handler.reset()
            return 0

    record = handler.records[0]
    with pytest.raises(tesk_bam.Error, match=MOVED):
        record.pos = Position()
    with pytest.raises(IndexError):
        handler.records[Position()]
    with pytest.raises(IndexError):
        del handler.records[Position()]
    with pytest.raises(IndexError):
        handler[Position()]

    def operations():
        yield "M", 1
        handler.reset()

    handler.add_alignment_sam(LINES[1])
    record = handler.records[0]
    with pytest.raises(tesk_bam.Error, match=MOVED):
        record.cigar = operations()
    handler.add_alignment_sam(LINES[0])
    fields = handler.records[0].aux_data
    with pytest.raises(tesk_bam.Error, match=MOVED):
        del fields[Position()]
