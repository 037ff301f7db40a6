"""Sequence alignments in memory, moved between SAM, BAM and BAI files.

BAMFileHandler holds a SAM header and the records under it: fill it from a SAM or BAM
file, or line by line; sort it; write it as SAM, or as BAM with a BAI index. sam_lines()
goes through a file of any origin and size in little memory. Other functions turn a
basecaller's output, NumPy arrays that are not copied, into SAM text.

    import tesk_bam

    handler = tesk_bam.BAMFileHandler()
    handler.read_from_sam_file("reads.sam")
    handler.write_to_bam_file("reads.bam", write_index=True)

Failures are exceptions with the library's message: Error, and two classes derived from
it that are ValueError and TypeError, too. Arguments of a wrong kind raise TypeError,
ValueError and OverflowError as usual.

Coordinates are 0-based and intervals half-open wherever the text says nothing else; SAM
text itself is 1-based. Text that is no UTF-8 has lone surrogates, as in file names:
encode it with errors="surrogateescape".
"""

from ._tesk_bam import (
    AuxData,
    AuxDataList,
    BAMFileHandler,
    BamRecord,
    BaseModContext,
    Error,
    InvalidTypeError,
    InvalidValueError,
    RecordList,
    RefSeq,
    RefSeqList,
    SamLines,
    __version__,
    generate_modbase_string,
    generate_move_table_string,
    get_modbase_channel_name,
    make_unmapped_sam_line,
    sam_lines,
)

__all__ = [
    "AuxData",
    "AuxDataList",
    "BAMFileHandler",
    "BamRecord",
    "BaseModContext",
    "Error",
    "InvalidTypeError",
    "InvalidValueError",
    "RecordList",
    "RefSeq",
    "RefSeqList",
    "SamLines",
    "__version__",
    "generate_modbase_string",
    "generate_move_table_string",
    "get_modbase_channel_name",
    "make_unmapped_sam_line",
    "sam_lines",
]
