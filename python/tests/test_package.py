"""The package as a whole: stub, docstrings, README, memory."""

import ast
import importlib.util
import inspect
import re
import shutil
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

import tesk_bam

ROOT = Path(__file__).parents[2]
PACKAGE = Path(tesk_bam.__file__).parent
STUB = PACKAGE / "_tesk_bam.pyi"
CLASSES = [name for name in tesk_bam.__all__ if inspect.isclass(getattr(tesk_bam, name))]
# What a class may have without its stub: rest of Python, of pybind11, and texts.
UNSTATED = {"__doc__", "__module__", "__repr__", "__new__", "__weakref__"}


# --- The stub ---------------------------------------------------------------------


def stub_members(body):
    """Name to definitions of what a part of the stub declares."""
    members = {}
    for node in body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            members.setdefault(node.name, []).append(node)
        elif isinstance(node, ast.AnnAssign):
            members.setdefault(node.target.id, []).append(node)
    return members


STUB_MEMBERS = {
    name: nodes
    for name, nodes in stub_members(ast.parse(STUB.read_text()).body).items()
    if not re.match("_[A-Za-z]", name)
}


def parameters(node):
    """A signature without its types."""
    arguments = node.args
    for argument in ast.walk(arguments):
        if isinstance(argument, ast.arg):
            argument.annotation = None
    return ast.unparse(arguments)


def parameters_of(function):
    text = str(inspect.signature(function))
    return parameters(ast.parse(f"def f{text}: pass").body[0])


def without_defaults(text):
    return re.sub(r"=[^,]+", "", text)


def check_function(nodes, function):
    if len(nodes) == 1:
        assert parameters(nodes[0]) == parameters_of(function)
        return
    expected = without_defaults(parameters_of(function))
    assert {without_defaults(parameters(node)) for node in nodes} == {expected}


def test_stub_has_the_names_of_the_module():
    assert set(STUB_MEMBERS) == set(tesk_bam.__all__)
    public = {name for name in vars(tesk_bam._tesk_bam) if not name.startswith("_")}
    assert public | {"__version__"} == set(tesk_bam.__all__)


@pytest.mark.parametrize("name", [name for name in tesk_bam.__all__ if name.islower()])
def test_stub_has_the_signature_of_the_function(name):
    if name != "__version__":
        check_function(STUB_MEMBERS[name], getattr(tesk_bam, name))


@pytest.mark.parametrize("name", CLASSES)
def test_stub_has_the_members_of_the_class(name):
    made = getattr(tesk_bam, name)
    (stub,) = STUB_MEMBERS[name]
    members = stub_members(stub.body)
    own = {member for member in vars(made) if member not in UNSTATED}
    if "__init__" not in members:
        own.discard("__init__")  # raises that there is no constructor
    if not issubclass(made, Exception):
        assert set(members) == own
    assert [ast.unparse(base) for base in stub.bases] == [
        base.__name__ for base in made.__bases__ if base.__name__ != "pybind11_object"
    ]
    for member, nodes in members.items():
        value = vars(made)[member]
        if isinstance(value, property):
            decorators = [ast.unparse(d) for node in nodes for d in node.decorator_list]
            is_settable = value.fset is not None
            assert decorators == ["property"] + [f"{member}.setter"] * is_settable, member
        elif value is None:
            assert ast.unparse(nodes[0]) == f"{member}: ClassVar[None]"
        else:
            check_function(nodes, getattr(made, member))


# --- Docstrings -------------------------------------------------------------------


@pytest.mark.parametrize("name", [name for name in tesk_bam.__all__ if name != "__version__"])
def test_everything_has_a_docstring(name):
    member = getattr(tesk_bam, name)
    assert member.__doc__
    assert member.__module__ == "tesk_bam"
    if name not in CLASSES or issubclass(member, Exception):
        return
    for part, value in vars(member).items():
        if part in UNSTATED or value is None:
            continue
        if part == "__init__" and "no constructor" not in str(value.__doc__):
            continue
        assert value.__doc__, part
        assert "--\n" not in value.__doc__, part  # a signature that was not understood


def test_classes_that_only_the_module_makes():
    for name in ("AuxDataList", "RecordList", "RefSeqList", "SamLines"):
        with pytest.raises(TypeError, match="No constructor defined"):
            getattr(tesk_bam, name)()


# --- Types ------------------------------------------------------------------------


def readme_example():
    """The program in the README, and what the README says that it prints."""
    section = (ROOT / "README.md").read_text().split("\n### Python\n")[1].split("\n### ")[0]
    program, printed = re.search("```python\n(.*?)```.*?```\n(.*?)```", section, re.S).groups()
    return program, printed


@pytest.mark.skipif(importlib.util.find_spec("mypy") is None, reason="there is no mypy")
def test_types_of_stub_and_example(tmp_path):
    (tmp_path / "example.py").write_text(readme_example()[0])
    (tmp_path / "wrong.py").write_text(
        textwrap.dedent(
            """
            import tesk_bam

            handler = tesk_bam.BAMFileHandler()
            handler.records[0].pos = "1"
            handler.sort(1)
            first: int = handler[0]
            """
        )
    )

    def check(*paths):
        command = [sys.executable, "-m", "mypy", "--strict", "--cache-dir", tmp_path / "cache"]
        return subprocess.run(
            [*command, *paths], capture_output=True, text=True, cwd=PACKAGE.parent
        ).stdout

    good = check(STUB, PACKAGE / "__init__.py", tmp_path / "example.py")
    assert good.startswith("Success: no issues found in 3 source files"), good
    assert "Found 3 errors in 1 file" in check(tmp_path / "wrong.py")


# --- README, version, memory ------------------------------------------------------


def test_readme_example_prints_what_it_says(tmp_path):
    program, printed = readme_example()
    assert program.count("\n") <= 12
    shutil.copy(ROOT / "examples" / "quickstart.sam", tmp_path / "reads.sam")
    result = subprocess.run(
        [sys.executable, "-c", program], cwd=tmp_path, capture_output=True, text=True
    )
    assert (result.stdout, result.stderr) == (printed, "")
    assert (tmp_path / "reads.bam.bai").exists()


def test_version_is_that_of_the_project():
    newest = re.search("^## (\\S+)", (ROOT / "CHANGELOG.md").read_text(), re.M).group(1)
    assert tesk_bam.__version__ == newest


def test_numpy_is_needed_for_arrays_alone():
    program = """
        import sys
        sys.modules["numpy"] = None
        import tesk_bam
        print(tesk_bam.generate_move_table_string(b"\\1\\0", 5))
        handler = tesk_bam.BAMFileHandler()
        handler.add_alignment_sam("r\\t4\\t*\\t0\\t0\\t*\\t*\\t0\\t0\\t*\\t*\\tXB:B:c,1\\tNM:i:7")
        fields = handler.records[0].aux_data
        print(fields["NM"])
        try:
            fields["XB"]
        except ImportError as error:
            print(type(error).__name__)
    """
    program = [sys.executable, "-c", textwrap.dedent(program)]
    printed = subprocess.run(program, check=True, capture_output=True, text=True).stdout
    assert printed == "mv:B:c,5,1,0\n7\nModuleNotFoundError\n"


# What is made and let go many times; each round holds some megabytes for a while.
ROUNDS = """
    import sys
    import numpy
    import tesk_bam

    def resident_mb():
        with open("/proc/self/statm") as status:
            return int(status.read().split()[1]) * 4096 / 2**20

    moves = numpy.ones(100_000, numpy.uint8)

    def make_and_drop():
        handler = tesk_bam.BAMFileHandler()
        handler.add_alignment_sam(tesk_bam.make_unmapped_sam_line("r", 10**6 * "A", 10**6 * "I"))
        record = handler.records[0]
        record.aux_data.append(tesk_bam.AuxData("mv", "B", moves))
        values = [record.copy(), record.seq, record.qual, record.aux_data["mv"], handler[0]]
        handler.write_to_sam_file(sys.argv[1])
        for line in tesk_bam.sam_lines(sys.argv[1]):
            values.append(line)
        generate = tesk_bam.generate_move_table_string
        for bad in (moves[::-1], moves.astype(float), None):
            try:
                generate(bad, 5)
            except TypeError:
                pass
        try:
            handler.read_from_bam_file(sys.argv[1])
        except tesk_bam.Error:
            pass
        return generate(moves, 5), values

    for _ in range(10):
        make_and_drop()
    before = resident_mb()
    for _ in range(40):
        make_and_drop()
    print(resident_mb() - before)
"""


def test_nothing_leaks(tmp_path):
    program = [sys.executable, "-c", textwrap.dedent(ROUNDS), tmp_path / "reads.sam"]
    grown_mb = float(subprocess.run(program, check=True, capture_output=True, text=True).stdout)
    assert grown_mb < 20
