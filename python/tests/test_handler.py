"""BAMFileHandler: state, files, and every message that can be met from Python."""

import os
import struct
from pathlib import Path

import pytest
from bam_reader import BamFile, inflate_bgzf, make_bam, make_block, make_record
from conftest import HEADER, LINES

import tesk_bam


def error_of(error_class, call, *arguments):
    with pytest.raises(tesk_bam.Error) as caught:
        call(*arguments)
    assert type(caught.value) is error_class
    return str(caught.value)


# --- State ------------------------------------------------------------------------


def test_new_handler_is_empty():
    handler = tesk_bam.BAMFileHandler()
    assert (handler.header, handler.header_lines, handler.sort_order) == ("", "", "")
    assert (handler.has_sort_order, handler.error_message) == (False, "")
    assert (len(handler), len(handler.records), len(handler.references)) == (0, 0, 0)
    assert repr(handler) == "<tesk_bam.BAMFileHandler: 0 references, 0 records>"


def test_state_after_header_and_lines(handler):
    assert handler.header == HEADER
    assert handler.get_header() == HEADER
    assert handler.header_lines == HEADER[HEADER.index("@SQ") :]
    assert (handler.sort_order, handler.has_sort_order) == ("\tSO:unsorted", False)
    assert list(handler.references) == [
        tesk_bam.RefSeq("chr1", 1000),
        tesk_bam.RefSeq("chr2", 2000),
    ]
    assert repr(handler) == "<tesk_bam.BAMFileHandler: 2 references, 3 records>"


@pytest.mark.parametrize(
    "name",
    "records references header header_lines sort_order has_sort_order error_message".split(),
)
def test_state_cannot_be_replaced(handler, name):
    with pytest.raises(AttributeError):
        setattr(handler, name, getattr(handler, name))


def test_reset_empties_all_but_the_message(handler):
    error_of(tesk_bam.Error, handler.add_header_lines, "x")
    handler.reset()
    assert (len(handler), len(handler.references), handler.header) == (0, 0, "")
    assert handler.error_message == "Invalid line encountered in header lines: x"


def test_sort_orders_by_reference_and_position(handler):
    handler.sort()
    assert [record.read_name for record in handler.records] == ["r2", "r1", "r3"]
    assert (handler.sort_order, handler.has_sort_order) == ("\tSO:coordinate", True)
    assert handler.get_updated_header().startswith("@HD\tVN:1.6\tSO:coordinate\n@SQ")


def test_add_alignment_takes_the_order_off_the_record(handler):
    handler.sort()
    handler.add_alignment_sam(LINES[0])
    assert not handler.has_sort_order
    assert handler.get_updated_header().startswith("@HD\tVN:1.6\tSO:unknown\n")


def test_references_append_gives_lines_an_index(handler):
    handler.references.append(tesk_bam.RefSeq("chr3", 5))
    assert handler.references[-1] == handler.references[2] == tesk_bam.RefSeq("chr3", 5)
    handler.add_alignment_sam("r\t0\tchr3\t1\t0\t1M\t*\t0\t0\tA\tI")
    assert handler.records[3].refID == 2
    assert handler.header == HEADER


def test_references_index_out_of_range(handler):
    for index in (2, -3):
        with pytest.raises(IndexError, match="^reference index out of range$"):
            handler.references[index]


def test_refseq_is_a_value():
    reference = tesk_bam.RefSeq("chr1", 1000)
    assert reference == tesk_bam.RefSeq(name="chr1", length=1000)
    assert hash(reference) == hash(tesk_bam.RefSeq("chr1", 1000))
    assert reference != tesk_bam.RefSeq("chr1", 999)
    assert reference != ("chr1", 1000)
    assert repr(reference) == "RefSeq('chr1', 1000)"
    with pytest.raises(AttributeError):
        reference.length = 1


@pytest.mark.parametrize("name", ["", "a b", "a\tb", "a\n", "a\0"])
def test_refseq_name_is_no_word(name):
    with pytest.raises(ValueError, match="^name: one word is needed$"):
        tesk_bam.RefSeq(name, 1)


def test_refseq_length_beyond_32_bits():
    assert tesk_bam.RefSeq("r", 2**31 - 1).length == 2**31 - 1
    with pytest.raises(OverflowError) as caught:
        tesk_bam.RefSeq("r", 2**31)
    assert str(caught.value) == "length: 2147483648 is not in -2147483648 to 2147483647"


# --- Lines ------------------------------------------------------------------------


def test_handler_is_a_sequence_of_its_lines(handler):
    assert list(handler) == LINES
    assert len(handler) == handler.get_num_alignments() == 3
    assert (handler[0], handler[-1]) == (LINES[0], LINES[2])
    assert handler[1:] == LINES[1:]
    assert handler[::-2] == LINES[::-2]
    assert LINES[1] in handler
    assert list(reversed(handler)) == LINES[::-1]
    assert handler.get_alignment_sam(2) == LINES[2]


@pytest.mark.parametrize("index", [3, -4, 2**70])
def test_line_index_out_of_range(handler, index):
    with pytest.raises(IndexError):
        handler[index]


def test_line_index_messages(handler):
    with pytest.raises(IndexError, match="^alignment sam index out of range!$"):
        handler[3]
    for index in (3, -1):
        message = error_of(tesk_bam.Error, handler.get_alignment_sam, index)
        assert message == "alignment sam index out of range!"
    with pytest.raises(TypeError, match="'str' object"):
        handler["r1"]


def test_lines_added_while_iterating_are_met(handler):
    met = []
    for line in handler:
        if len(met) == 1:
            handler.add_alignment_sam(LINES[0])
        met.append(line)
    assert met == LINES + LINES[:1]


def test_text_that_is_no_utf8_comes_back_byte_for_byte(tmp_path):
    line = b"r\t4\t*\t0\t0\t*\t*\t0\t0\tA\tI\tXZ:Z:caf\xe9 \xc3\xa9"
    (tmp_path / "in.sam").write_bytes(line + b"\n")
    handler = tesk_bam.BAMFileHandler()
    handler.read_from_sam_file(tmp_path / "in.sam")
    assert handler[0] == line.decode(errors="surrogateescape")
    assert handler.records[0].aux_data["XZ"] == "caf\udce9 \u00e9"
    handler.add_alignment_sam(handler[0])
    handler.write_to_sam_file(tmp_path / "out.sam")
    assert (tmp_path / "out.sam").read_bytes() == 2 * (line + b"\n")


# --- Files ------------------------------------------------------------------------


def test_sam_file_comes_back_byte_for_byte(sam_file, tmp_path):
    handler = tesk_bam.BAMFileHandler()
    handler.read_from_sam_file(sam_file)
    handler.write_to_sam_file(tmp_path / "out.sam")
    assert (tmp_path / "out.sam").read_bytes() == sam_file.read_bytes()


@pytest.mark.parametrize("kind", [str, os.fsencode, Path])
def test_paths_of_every_kind(handler, tmp_path, kind):
    path = tmp_path / "näme with blanks.bam"
    handler.write_to_bam_file(kind(path))
    handler.read_from_bam_file(kind(path))
    assert len(handler) == 3
    with pytest.raises(TypeError):
        handler.read_from_bam_file(3)


def test_bam_file_holds_what_the_lines_say(handler, tmp_path):
    path = tmp_path / "out.bam"
    handler.write_to_bam_file(path)
    bam = BamFile(path)
    assert bam.text == "@HD\tVN:1.6\tSO:unknown\n" + handler.header_lines
    assert bam.references == [("chr1", 1000), ("chr2", 2000)]
    assert bam.records == [
        dict(refID=1, pos=100, mapq=60, bin=4681, flag=99, l_seq=6, next_refID=1, next_pos=300,
             tlen=206, read_name="r1", cigar=[("M", 3), ("I", 1), ("M", 2)], seq="ACGTAC",
             qual=bytes([40, 40, 40, 40, 2, 0]),
             aux_data=[("NM", "i", 1), ("RG", "Z", "a"), ("XF", "f", 0.5)]),
        dict(refID=0, pos=10, mapq=7, bin=4681, flag=16, l_seq=4, next_refID=-1, next_pos=-1,
             tlen=0, read_name="r2", cigar=[("M", 4)], seq="GGCC", qual=b"\xff" * 4, aux_data=[]),
        dict(refID=-1, pos=-1, mapq=0, bin=4680, flag=4, l_seq=0, next_refID=-1, next_pos=-1,
             tlen=0, read_name="r3", cigar=[], seq="", qual=b"",
             aux_data=[("XB", "B", ("s", [-1, 2]))]),
    ]  # fmt: skip
    assert handler.bytes_written == path.stat().st_size - 28


def test_records_have_the_fields_of_the_file(handler, tmp_path):
    path = tmp_path / "out.bam"
    handler.write_to_bam_file(path)
    handler.read_from_bam_file(path)
    names = "refID pos mapq bin flag l_seq next_refID next_pos tlen read_name cigar seq qual"
    for record, expected in zip(handler.records, BamFile(path).records):
        for name in names.split():
            assert getattr(record, name) == expected[name], name
    assert list(handler) == LINES
    # As the library has it: from the header text, then from the binary list.
    assert [reference.name for reference in handler.references] == ["chr1", "chr2"] * 2


def test_index_is_written_beside_the_file_and_sorts(handler, tmp_path):
    path = tmp_path / "out.bam"
    handler.write_to_bam_file(path, write_index=True)
    assert [record["read_name"] for record in BamFile(path).records] == ["r2", "r1", "r3"]
    index = Path(f"{path}.bai").read_bytes()
    assert index[:8] == b"BAI\x01" + struct.pack("<i", 2)
    assert struct.unpack("<Q", index[-8:]) == (1,)  # records without reference
    assert handler.sort_order == "\tSO:coordinate"


# A BAI file by hand: one reference with the pseudo-bin, one bin of a chunk, one window.
INDEX = (
    struct.pack("<4sii", b"BAI\x01", 1, 2)
    + struct.pack("<IiQQQQ", 37450, 2, 5 << 16, (9 << 16) + 7, 3, 1)
    + struct.pack("<IiQQ", 4681, 1, 5 << 16, (9 << 16) + 7)
    + struct.pack("<iQ", 1, 5 << 16)
    + struct.pack("<Q", 4)
)
INDEX_TEXT = """n_ref is 1

Ref 0 has 2 bins
Ref 0 bin 37450 has 2 chunks
Magic bin says placed unmapped begin 5,0 end 9,7, num mapped 3, unmapped 1
Ref 0 bin 4681 has 1 chunks
Start is file offset 5 block offset 0
End is file offset 9 block offset 7
Ref 0 has 1 total real chunks
Ref 0 has 1 linear intervals
Linear file offset 5 block offset 0 (0 - 16383)
Got n_no_coor 4
"""


def test_index_is_printed_to_pythons_output(tmp_path, capsys):
    (tmp_path / "i.bai").write_bytes(INDEX)
    tesk_bam.BAMFileHandler().print_index_from_file(tmp_path / "i.bai")
    assert capsys.readouterr().out == INDEX_TEXT


def test_index_that_is_damaged_is_printed_up_to_there(tmp_path, capsys):
    path = tmp_path / "i.bai"
    path.write_bytes(INDEX[:16] + struct.pack("<i", 3) + INDEX[20:])
    message = error_of(tesk_bam.Error, tesk_bam.BAMFileHandler().print_index_from_file, path)
    assert message == f"Encountered malformed magic bin in index file {path}"
    expected = "n_ref is 1\n\nRef 0 has 2 bins\nRef 0 bin 37450 has 3 chunks\n"
    assert capsys.readouterr().out == expected


def test_bins_of_regions():
    handler = tesk_bam.BAMFileHandler()
    assert [handler.reg_to_bin(0, end) for end in (16383, 16384, 16385)] == [4681, 4681, 585]
    assert handler.reg_to_bins(16383, 16385) == [0, 1, 9, 73, 585, 4681, 4682]
    with pytest.raises(OverflowError, match="^end: 2147483648 is not in"):
        handler.reg_to_bin(0, 2**31)
    with pytest.raises(TypeError):
        handler.reg_to_bins(0.5, 2)


# --- Messages ---------------------------------------------------------------------

# Text, and the message in front of its last line.
HEADER_FAULTS = [
    ("@HD\tVN:1.6\tSO:unknown\n@HD\tVN:1.6", "Multiple @HD lines encountered in header line: "),
    ("@CO\tx\n@HD\tVN:1.6", "@HD lines encountered after first header line: "),
    ("@HD\tSO:unknown", "Mandatory 'VN' field not found in @HD header line: "),
    ("@HD\tVN:1.6\tXX:1", "Invalid field 'XX:1' encountered in @HD header line: "),
    ("@HD\tVN:2.-1-", "Invalid 'VN' field '2.-1-' encountered in @HD header line: "),
    (
        "@HD\tVN:1.4\tGO:query",
        "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: ",
    ),
    (
        "@HD\tVN:1.5\tSS:x",
        "Unsupported 'SS' field encountered in @HD header line with VN < 1.6: ",
    ),
    (
        "@HD\tVN:1.6\tSO:unknown\tGO:none",
        "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line: ",
    ),
    ("@HD\tVN:1.6\tSO:x", "Invalid 'SO' field 'x' encountered in @HD header line: "),
    ("@HD\tVN:1.6\tGO:x", "Invalid 'GO' field 'x' encountered in @HD header line: "),
    ("@SQ\tSN:chr1", "Malformed @SQ line encountered in header lines: "),
    (
        "@HD\tVN:1.5\n@RG\tID:x",
        "Unsupported '@RG' line encountered in @HD header line with VN < 1.3: ",
    ),
    ("x", "Invalid line encountered in header lines: "),
]


@pytest.mark.parametrize("text, message", HEADER_FAULTS)
def test_header_message(text, message):
    handler = tesk_bam.BAMFileHandler()
    expected = message + text.split("\n")[-1]
    assert error_of(tesk_bam.Error, handler.add_header_lines, text) == expected
    assert handler.error_message == expected
    assert (handler.header, len(handler.references)) == ("", 0)


@pytest.mark.parametrize("length", ["x", "2147483648"])
def test_header_length_that_is_no_number(length):
    handler = tesk_bam.BAMFileHandler()
    text = f"@SQ\tSN:c\tLN:{length}"
    assert error_of(tesk_bam.InvalidValueError, handler.add_header_lines, text) == "stoi"


def fields(**changed):
    columns = dict(seq="AC", qual="II", aux="")
    columns.update(changed)
    return "r\t4\t*\t0\t0\t*\t*\t0\t0\t{seq}\t{qual}{aux}".format(**columns)


LINE_FAULTS = [
    ("r\t4\t*", "Malformed SAM line detected"),
    (fields(aux="\tXX"), "Invalid aux data detected: XX"),
    (fields(aux="\tXX:c:1"), "Invalid auxiliary data type) 'c' found in alignment record in "),
    (fields(seq="ac"), "Invalid sequence code detected"),
]


@pytest.mark.parametrize("line, message", LINE_FAULTS)
def test_line_message(handler, line, message):
    assert error_of(tesk_bam.Error, handler.parse_sam_line_to_bam_record, line) == message
    expected = "Sam to Bam parsing failed: " + message
    assert error_of(tesk_bam.Error, handler.add_alignment_sam, line) == expected
    assert list(handler) == LINES


@pytest.mark.parametrize(
    "field, error_class, message",
    [
        ("XX:i:x", tesk_bam.InvalidValueError, "stoi"),
        ("XX:i:2147483648", tesk_bam.InvalidValueError, "stoi"),
        ("XX:f:x", tesk_bam.InvalidValueError, "stof"),
        ("XX:B:C,", tesk_bam.InvalidValueError, "stoi"),
    ],
)
def test_line_with_a_malformed_number_leaves_no_record(handler, field, error_class, message):
    line = fields(aux="\t" + field)
    assert error_of(error_class, handler.add_alignment_sam, line) == message
    assert error_of(error_class, handler.parse_sam_line_to_bam_record, line) == message
    assert list(handler) == LINES


def test_array_without_comma_after_its_type(handler):
    line = fields(aux="\tXX:B:c12,3")
    message = "Hit end of BAM buffer while writing data"
    assert error_of(tesk_bam.Error, handler.add_alignment_sam, line) == message
    assert list(handler) == LINES


def test_reading_sam_messages(tmp_path):
    handler = tesk_bam.BAMFileHandler()
    read = handler.read_from_sam_file
    missing = tmp_path / "none.sam"
    assert error_of(tesk_bam.Error, read, missing) == f"Cannot open file {missing}"
    path = tmp_path / "bad.sam"
    path.write_text(LINES[2] + "\n@XX\n")
    assert error_of(tesk_bam.Error, read, path) == (
        f"Could not parse header from SAM file {path} : "
        "Invalid line encountered in header lines: @XX"
    )
    assert list(handler) == [LINES[2]]
    path.write_text(LINES[2] + "\nr\t4\n")
    assert error_of(tesk_bam.Error, read, path) == (
        f"Could not parse alignment from SAM file {path} : "
        "Sam to Bam parsing failed: Malformed SAM line detected"
    )
    path.write_text(LINES[2] + "\n" + fields(aux="\tXX:i:x") + "\n")
    assert error_of(tesk_bam.InvalidValueError, read, path) == "stoi"
    assert list(handler) == [LINES[2]]


def test_writing_messages(handler, tmp_path):
    path = tmp_path / "none" / "out"
    message = f"Cannot open SAM file : {path}"
    assert error_of(tesk_bam.Error, handler.write_to_sam_file, path) == message
    message = f"Cannot open file {path}"
    assert error_of(tesk_bam.Error, handler.write_to_bam_file, path) == message
    full = "/dev/full"
    message = "SAM file reported error on close /dev/full"
    assert error_of(tesk_bam.Error, handler.write_to_sam_file, full) == message
    message = "BAM file reported error on close /dev/full"
    assert error_of(tesk_bam.Error, handler.write_to_bam_file, full) == message
    path = tmp_path / "out.bam"
    Path(f"{path}.bai").mkdir()
    assert error_of(tesk_bam.Error, handler.write_to_bam_file, path, True) == (
        f"Could not write BAM index : Cannot open index file {path}.bai for writing"
    )


def test_index_of_a_record_beyond_its_range(handler, tmp_path):
    handler.records[1].pos = 2**31 - 1
    handler.records[1].cigar = [("N", 2**28 - 1)] * 31
    with pytest.raises(tesk_bam.InvalidValueError) as caught:
        handler.write_to_bam_file(tmp_path / "out.bam", True)
    end = 2**31 - 1 + 31 * (2**28 - 1)
    assert str(caught.value) == (
        f"Alignment ends beyond the range of a BAM index: position {end}"
    )


def test_short_integers_cannot_be_written(handler, tmp_path):
    handler.records[0].aux_data.append(tesk_bam.AuxData("XS", "s", 1))
    message = error_of(tesk_bam.Error, handler.write_to_bam_file, tmp_path / "out.bam")
    assert message == "Hit end of BAM buffer while writing data"


def test_reading_bam_messages(tmp_path):
    handler = tesk_bam.BAMFileHandler()
    path = tmp_path / "in.bam"

    def message_for(data, error_class=tesk_bam.Error):
        path.write_bytes(data)
        return error_of(error_class, handler.read_from_bam_file, path)

    whole = make_bam("", [], make_record("r"))
    path.unlink(missing_ok=True)
    assert error_of(tesk_bam.Error, handler.read_from_bam_file, path) == f"Cannot open file {path}"
    assert message_for(make_block(b"BAM\x01" + bytes(8))) == (
        f"Final BGZF block was not the EOF sequence as expected in file {path}. "
        "Perhaps the file is corrupt?"
    )
    assert message_for(make_block(b"SAM\x01" + bytes(8)) + make_block(b"")) == (
        f"BAM file did not contain well formed header: {path}"
    )
    assert message_for(make_block(b"BAM\x01" + bytes(7)) + make_block(b"")) == (
        "Reached end of uncompressed BAM buffer unexpectedly while extracting data: "
        "Hit end of BAM buffer while extracting data"
    )
    assert message_for(b"\0" + whole[1:]) == f"Encountered malformed BGZF header in file {path}"
    end_block = make_block(b"")
    flipped = whole[: -len(end_block) - 8] + b"\0\0\0\0" + whole[-len(end_block) - 4 :]
    assert message_for(flipped) == "CRC mismatch after decompressing BGZF block!"
    bad_header = make_bam("@XX\n", [], b"")
    assert message_for(bad_header) == "Invalid line encountered in header lines: @XX"
    unknown = make_bam("", [], make_record("r", b"XXQ1"))
    assert message_for(unknown) == (
        f"Invalid auxiliary data type found in alignment record in {path}"
    )
    record = make_record("r")
    other_reference = record[:4] + struct.pack("<i", 0) + record[8:]
    assert message_for(make_bam("", [], other_reference)) == (
        "SAM line generation failed: Invalid next segment ref ID detected"
    )
    # An array of floats: boost::bad_any_cast has a text of its own.
    floats = make_record("r", b"XXBf" + struct.pack("<if", 1, 0.5))
    text = message_for(make_bam("", [], floats), tesk_bam.InvalidTypeError)
    assert text.startswith("boost::bad_any_cast")


def test_index_messages(tmp_path):
    show = tesk_bam.BAMFileHandler().print_index_from_file
    path = tmp_path / "i.bai"
    assert error_of(tesk_bam.Error, show, path) == f"Cannot open index file {path}"
    path.write_bytes(b"BAM\x01")
    assert error_of(tesk_bam.Error, show, path) == (
        f"Encountered malformed BAI header in file {path}"
    )


def test_errors_are_what_they_stand_for():
    assert tesk_bam.Error.__mro__[1] is RuntimeError
    assert issubclass(tesk_bam.InvalidValueError, (tesk_bam.Error, ValueError))
    assert issubclass(tesk_bam.InvalidValueError, ValueError)
    assert issubclass(tesk_bam.InvalidTypeError, tesk_bam.Error)
    assert issubclass(tesk_bam.InvalidTypeError, TypeError)
    assert tesk_bam.Error.__module__ == "tesk_bam"


def test_payload_of_the_file_is_blocks_of_one_record(handler, tmp_path):
    """Each record has a block of its own: header, three records, the end."""
    path = tmp_path / "out.bam"
    handler.write_to_bam_file(path)
    data = path.read_bytes()
    n_blocks = 0
    while data:
        size = struct.unpack_from("<H", data, 16)[0] + 1
        inflate_bgzf(data[:size])
        data = data[size:]
        n_blocks += 1
    assert n_blocks == 5
