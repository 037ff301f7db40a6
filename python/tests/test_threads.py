"""Other threads run while files are read and written.

Pipes make sure of it: a thread that opens one waits in the library until the test has
opened the other end, which it could not do without the GIL.
"""

import os
import threading
import time

import pytest
from bam_reader import inflate_bgzf
from conftest import HEADER, LINES

import tesk_bam

IN_USE = "^The handler is in use by another thread$"
TEXT = HEADER + "".join(line + "\n" for line in LINES)


class Call(threading.Thread):
    """Runs a call in a thread that does not outlive the tests."""

    def __init__(self, function, *arguments):
        super().__init__(daemon=True)
        self._call = lambda: function(*arguments)
        self.result = self.error = None
        self.start()

    def run(self):
        try:
            self.result = self._call()
        except Exception as error:
            self.error = error

    def finish(self):
        self.join(60)
        assert not self.is_alive()
        if self.error is not None:
            raise self.error
        return self.result


@pytest.fixture
def pipes(tmp_path):
    paths = [tmp_path / "first", tmp_path / "second"]
    for path in paths:
        os.mkfifo(path)
    return paths


def wait_until_in_use(handler):
    for _ in range(6000):
        try:
            len(handler)
        except tesk_bam.Error:
            return
        time.sleep(0.01)
    raise AssertionError("the thread has not begun")


def test_two_files_are_read_at_once(pipes):
    handlers = [tesk_bam.BAMFileHandler(), tesk_bam.BAMFileHandler()]
    calls = [Call(h.read_from_sam_file, path) for h, path in zip(handlers, pipes)]
    files = [open(path, "w") for path in pipes]  # both threads have opened theirs
    for piece in (TEXT[:50], TEXT[50:]):
        for file in files:
            file.write(piece)
            file.flush()
    for file, call, handler in zip(files, calls, handlers):
        file.close()
        call.finish()
        assert list(handler) == LINES


def test_two_files_are_read_line_by_line_at_once(pipes):
    calls = [Call(lambda path=path: list(tesk_bam.sam_lines(path))) for path in pipes]
    files = [open(path, "w") for path in pipes]
    for file in files:
        file.write(TEXT)
    for file, call in zip(files, calls):
        file.close()
        assert call.finish() == LINES


@pytest.mark.parametrize("kind", ["sam", "bam"])
def test_other_threads_run_while_a_file_is_written(handler, pipes, kind):
    write = handler.write_to_sam_file if kind == "sam" else handler.write_to_bam_file
    call = Call(write, pipes[0])
    with open(pipes[0], "rb") as file:
        data = file.read()
    call.finish()
    if kind == "sam":
        assert data.decode() == TEXT
    else:
        assert inflate_bgzf(data)[:4] == b"BAM\x01"


def test_handler_in_use_refuses_everything(handler, pipes, tmp_path):
    record, fields = handler.records[0], handler.records[0].aux_data
    records, references = handler.records, handler.references
    call = Call(handler.write_to_bam_file, pipes[0])
    wait_until_in_use(handler)
    uses = [
        lambda: handler.header,
        lambda: handler.error_message,
        lambda: handler[0],
        lambda: list(handler),
        lambda: repr(handler),
        lambda: handler.sort(),
        lambda: handler.reset(),
        lambda: handler.read_from_sam_file(tmp_path / "none"),
        lambda: handler.read_from_bam_file(tmp_path / "none"),
        lambda: handler.write_to_sam_file(tmp_path / "none"),
        lambda: handler.write_to_bam_file(tmp_path / "none", True),
        lambda: handler.print_index_from_file(tmp_path / "none"),
        lambda: handler.add_header_lines("@CO"),
        lambda: handler.add_alignment_sam(LINES[0]),
        lambda: handler.parse_sam_line_to_bam_record(LINES[0]),
        lambda: handler.update_sam_line(tesk_bam.BamRecord()),
        lambda: handler.reg_to_bin(0, 1),
        lambda: len(records),
        lambda: records[0],
        lambda: records.append(tesk_bam.BamRecord()),
        lambda: records.__delitem__(0),
        lambda: len(references),
        lambda: references[0],
        lambda: record.pos,
        lambda: setattr(record, "pos", 1),
        lambda: record.copy(),
        lambda: len(fields),
    ]
    for use in uses:
        with pytest.raises(tesk_bam.Error, match=IN_USE):
            use()
    assert not (tmp_path / "none").exists()
    with open(pipes[0], "rb") as file:
        file.read()
    call.finish()
    assert (record.read_name, len(fields), list(handler)) == ("r1", 3, LINES)


def test_handler_is_free_after_an_error(handler, tmp_path):
    for _ in range(2):
        with pytest.raises(tesk_bam.Error, match="^Cannot open file"):
            handler.read_from_bam_file(tmp_path / "none")
    handler.records.append(tesk_bam.BamRecord())
    handler.records[0].aux_data.append(tesk_bam.AuxData("XS", "s", 1))
    with pytest.raises(tesk_bam.Error, match="^Hit end of BAM buffer"):
        handler.write_to_bam_file(tmp_path / "out.bam")
    assert len(handler) == 1


def test_lines_in_use_refuse_other_threads(pipes):
    opened = Call(tesk_bam.sam_lines, pipes[0])
    with open(pipes[0], "w") as file:
        file.write(TEXT)
        file.flush()
        lines = opened.finish()
        # More than there is: the thread waits for the rest.
        call = Call(list, lines)
        for _ in range(6000):
            try:
                lines.header
            except tesk_bam.Error as error:
                assert str(error) == "The file is in use by another thread"
                break
            time.sleep(0.01)
        for use in (lambda: next(lines), lines.close, lambda: lines.report):
            with pytest.raises(tesk_bam.Error, match="^The file is in use by another thread$"):
                use()
    assert call.finish() == LINES


def test_indexes_are_written_one_after_another(handler, pipes, tmp_path):
    waiting = Call(handler.write_to_bam_file, pipes[0], True)
    wait_until_in_use(handler)
    other = tesk_bam.BAMFileHandler()
    second = Call(other.write_to_bam_file, tmp_path / "second.bam", True)
    third = tesk_bam.BAMFileHandler()
    third.write_to_bam_file(tmp_path / "third.bam")  # needs not wait
    second.join(0.3)
    assert second.is_alive()
    assert not (tmp_path / "second.bam").exists()
    with open(pipes[0], "rb") as file:
        file.read()
    waiting.finish()
    second.finish()
    assert (tmp_path / "second.bam.bai").exists()
