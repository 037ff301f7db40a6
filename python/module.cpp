// The Python module tesk_bam._tesk_bam, which the package tesk_bam shows.
//
// Docstrings begin with a signature in the form that inspect.signature() reads.

#include "python/records.h"

PYBIND11_MODULE(_tesk_bam, module) {
    using namespace tesk::python;
    py::options options;
    options.disable_function_signatures();
    module.doc() = "The parts of tesk_bam that are written in C++.";
    module.attr("__version__") = TESK_BAM_VERSION;
    bind_errors(module);
    bind_aux_data(module);
    bind_records(module);
    bind_handler(module);
    bind_sam_lines(module);
    bind_annotations(module);
    // People know everything by the name of the package.
    for (auto const& [name, member] : module.attr("__dict__").cast<py::dict>()) {
        if (py::hasattr(member, "__module__")) member.attr("__module__") = "tesk_bam";
    }
}
