"""Reads BAM and BGZF without the library: what files should hold, by struct and zlib."""

import struct
import zlib
from pathlib import Path


def inflate_bgzf(data: bytes) -> bytes:
    """The payload of all blocks; checks their sizes and checksums."""
    payload = b""
    while data:
        magic, extra_size = struct.unpack_from("<4s6xH", data)
        assert magic == b"\x1f\x8b\x08\x04"
        assert (extra_size, data[12:14]) == (6, b"BC")
        block_size = struct.unpack_from("<H", data, 16)[0] + 1
        block = zlib.decompress(data[18 : block_size - 8], wbits=-15)
        assert struct.unpack_from("<II", data, block_size - 8) == (zlib.crc32(block), len(block))
        payload += block
        data = data[block_size:]
    return payload


class BamFile:
    """Header text, references and records of a BAM file, each record a dict."""

    def __init__(self, path: Path):
        self._data = inflate_bgzf(Path(path).read_bytes())
        self._at = 0
        assert self._take("4s") == b"BAM\x01"
        self.text = self._take_bytes(self._take("i")).decode()
        self.references = [self._reference() for _ in range(self._take("i"))]
        self.records = []
        while self._at < len(self._data):
            self.records.append(self._record())

    def _take(self, letter: str):
        value = struct.unpack_from("<" + letter, self._data, self._at)[0]
        self._at += struct.calcsize("<" + letter)
        return value

    def _take_bytes(self, n: int) -> bytes:
        self._at += n
        return self._data[self._at - n : self._at]

    def _reference(self):
        name = self._take_bytes(self._take("i"))
        assert name[-1] == 0
        return name[:-1].decode(), self._take("i")

    def _record(self):
        end = self._take("i") + self._at
        record = {"refID": self._take("i"), "pos": self._take("i")}
        l_read_name = self._take("B")
        record.update(mapq=self._take("B"), bin=self._take("H"))
        n_cigar_op = self._take("H")
        record.update(flag=self._take("H"), l_seq=self._take("i"))
        record.update(next_refID=self._take("i"), next_pos=self._take("i"), tlen=self._take("i"))
        record["read_name"] = self._take_bytes(l_read_name)[:-1].decode()
        ops = [self._take("I") for _ in range(n_cigar_op)]
        record["cigar"] = [("MIDNSHP=X"[op & 15], op >> 4) for op in ops]
        packed = self._take_bytes((record["l_seq"] + 1) // 2)
        bases = "".join("=ACMGRSVTWYHKDBN"[b >> 4] + "=ACMGRSVTWYHKDBN"[b & 15] for b in packed)
        record["seq"] = bases[: record["l_seq"]]
        record["qual"] = self._take_bytes(record["l_seq"])
        record["aux_data"] = []
        while self._at < end:
            record["aux_data"].append(self._field())
        assert self._at == end
        return record

    def _field(self):
        tag = self._take_bytes(2).decode()
        letter = self._take_bytes(1).decode()
        if letter in "ZH":
            text = self._data[self._at : self._data.index(0, self._at)]
            self._at += len(text) + 1
            return tag, letter, text.decode()
        if letter == "A":
            return tag, letter, self._take_bytes(1).decode()
        codes = {"c": "b", "C": "B", "s": "h", "S": "H", "i": "i", "I": "I", "f": "f"}
        if letter != "B":
            return tag, letter, self._take(codes[letter])
        element = self._take_bytes(1).decode()
        return tag, letter, (element, [self._take(codes[element]) for _ in range(self._take("i"))])


def make_bam(text: str, references, records: bytes) -> bytes:
    """A BAM file of a header and of records that are encoded already."""
    payload = struct.pack("<4si", b"BAM\x01", len(text)) + text.encode()
    payload += struct.pack("<i", len(references))
    for name, length in references:
        payload += struct.pack("<i", len(name) + 1) + name.encode() + struct.pack("<xi", length)
    payload += records
    return make_block(payload) + make_block(b"")


def make_block(payload: bytes) -> bytes:
    deflater = zlib.compressobj(6, zlib.DEFLATED, -15)
    data = deflater.compress(payload) + deflater.flush()
    head = struct.pack("<4s6xH2sHH", b"\x1f\x8b\x08\x04", 6, b"BC", 2, len(data) + 25)
    return head + data + struct.pack("<II", zlib.crc32(payload), len(payload))


def make_record(name: str, aux_data: bytes = b"") -> bytes:
    """An unmapped record without bases."""
    body = struct.pack("<iiBBHHHiiii", -1, -1, len(name) + 1, 0, 4680, 0, 4, 0, -1, -1, 0)
    body += name.encode() + b"\x00" + aux_data
    return struct.pack("<i", len(body)) + body
