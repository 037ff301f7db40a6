#include "python/support.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include <boost/any.hpp>

namespace tesk::python {

namespace {

// The classes of the errors; they live as long as the process.
PyObject* error_class = nullptr;
PyObject* value_error_class = nullptr;
PyObject* type_error_class = nullptr;

// Makes a class of exceptions; `bases` is a class or a tuple of classes.
PyObject* make_error_class(py::module_& module, char const* name, char const* doc,
                           py::object const& bases) {
    std::string const full_name = std::string("tesk_bam.") + name;
    PyObject* const made = PyErr_NewExceptionWithDoc(full_name.c_str(), doc, bases.ptr(), nullptr);
    if (made == nullptr) throw py::error_already_set();
    module.attr(name) = py::handle(made);
    return made;
}

void set_error(PyObject* type, std::string_view message) {
    PyErr_SetObject(type, to_str(message).ptr());
}

// What the library throws becomes an error of the module; exceptions that pybind11
// knows, which are std::runtime_error, too, go their way.
void translate(std::exception_ptr thrown) {
    try {
        if (thrown) std::rethrow_exception(std::move(thrown));
    } catch (py::builtin_exception const&) {
        throw;
    } catch (boost::bad_any_cast const& error) {
        set_error(type_error_class, error.what());
    } catch (std::logic_error const& error) {  // invalid_argument, out_of_range, length_error
        set_error(value_error_class, error.what());
    } catch (std::runtime_error const& error) {
        set_error(error_class, error.what());
    }
}

}  // namespace

py::str to_str(std::string_view bytes) {
    // This way of decoding runs no code of Python, which might change what holds the text.
    PyObject* const made = PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()),
                                                "surrogateescape");
    if (made == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(made);
}

void bind_errors(py::module_& module) {
    py::object const runtime_error = py::reinterpret_borrow<py::object>(PyExc_RuntimeError);
    error_class = make_error_class(module, "Error",
                                   "What the library refuses or cannot do; the text is the "
                                   "library's message.",
                                   runtime_error);
    auto const with = [](PyObject* other) {
        return py::make_tuple(py::handle(error_class), py::handle(other));
    };
    value_error_class =
        make_error_class(module, "InvalidValueError",
                         "A number in a text is malformed or does not fit, a letter is no base, or "
                         "a value is out of range.\n\n"
                         "Stands for std::invalid_argument, std::out_of_range and "
                         "std::length_error; the text is theirs.",
                         with(PyExc_ValueError));
    type_error_class = make_error_class(
        module, "InvalidTypeError",
        "An optional field does not have the type that its letter names, as happens with an "
        "array of floats in a BAM file.\n\nStands for boost::bad_any_cast; the text is its own.",
        with(PyExc_TypeError));
    py::register_local_exception_translator(translate);
}

void raise(PyObject* type, std::string_view message) {
    set_error(type, message);
    throw py::error_already_set();
}

void raise_error(std::string_view message) { raise(error_class, message); }

std::int64_t checked_integer(char const* name, py::handle value, std::int64_t min,
                             std::int64_t max) {
    auto const number = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
    if (!number) throw py::error_already_set();
    int overflow = 0;
    std::int64_t const result = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
    if (overflow != 0 || result < min || result > max) {
        raise(PyExc_OverflowError, std::string(name) + ": " + std::string(py::str(number)) +
                                       " is not in " + std::to_string(min) + " to " +
                                       std::to_string(max));
    }
    return result;
}

Py_ssize_t index_from(py::handle index) {
    Py_ssize_t const number = PyNumber_AsSsize_t(index.ptr(), PyExc_IndexError);
    if (number == -1 && PyErr_Occurred() != nullptr) throw py::error_already_set();
    return number;
}

std::size_t position_in(std::size_t size, Py_ssize_t index, char const* message) {
    auto const n = static_cast<Py_ssize_t>(size);
    Py_ssize_t const position = index < 0 ? index + n : index;
    if (position < 0 || position >= n) raise(PyExc_IndexError, message);
    return static_cast<std::size_t>(position);
}

}  // namespace tesk::python

bool pybind11::detail::type_caster<tesk::python::Text>::load(handle source, bool) {
    if (!source || !PyUnicode_Check(source.ptr())) return false;
    Py_ssize_t size = 0;
    char const* const bytes = PyUnicode_AsUTF8AndSize(source.ptr(), &size);
    if (bytes != nullptr) {
        value.bytes.assign(bytes, static_cast<std::size_t>(size));
        return true;
    }
    PyErr_Clear();  // lone surrogates
    auto const encoded = reinterpret_steal<object>(
        PyUnicode_AsEncodedString(source.ptr(), "utf-8", "surrogateescape"));
    if (!encoded) throw error_already_set();
    value.bytes.assign(PyBytes_AS_STRING(encoded.ptr()),
                       static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.ptr())));
    return true;
}
