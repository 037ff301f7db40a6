#include "tools/completion.h"

#include <algorithm>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tesk::tool {

namespace {

constexpr char const* BEGIN = R"(# bash completion for tesk-bam
_tesk_bam() {
    local current=${COMP_WORDS[COMP_CWORD]} words='' values='' folders=''
    local previous=${COMP_WORDS[COMP_CWORD - 1]}
    case $((COMP_CWORD > 1)),${COMP_WORDS[1]} in
)";

constexpr char const* END = R"(    esac
    COMPREPLY=()
    if [[ $values ]]; then
        [[ $values == none ]] || mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
    elif [[ $folders ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    elif [[ $COMP_CWORD -eq 1 || $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -F _tesk_bam tesk-bam
)";

std::vector<CLI::App const*> commands_of(CLI::App const& app) {
    return app.get_subcommands([](CLI::App const*) { return true; });
}

// The long names of all options, and those of an option with a value joined by '|'.
std::string option_names(CLI::App const& app) {
    std::string names;
    for (CLI::Option const* option : app.get_options()) {
        for (std::string const& name : option->get_lnames()) names += " --" + name;
    }
    return names;
}

// What completes the value of an option: a bash assignment.
std::string value_of(CLI::Option const& option) {
    std::string type = option.get_type_name();
    if (type == "FOLDER") return "folders=yes";
    if (type.find('|') == std::string::npos) return "values=none";
    std::replace(type.begin(), type.end(), '|', ' ');
    return "values='" + type + "'";
}

// The branch of one command.
std::string branch(CLI::App const& command) {
    std::string text = "        1," + command.get_name() + ")\n";
    text += "            words='" + option_names(command).substr(1) + "'\n";
    std::string values;
    for (CLI::Option const* option : command.get_options()) {
        if (option->get_lnames().empty() || option->get_items_expected_max() == 0) continue;
        values += "                --" + option->get_lnames().front() + ") " + value_of(*option) +
                  " ;;\n";
    }
    if (!values.empty()) {
        text += "            case $previous in\n" + values + "            esac\n";
    }
    return text + "            ;;\n";
}

}  // namespace

std::string bash_completion(CLI::App const& app) {
    std::string script = BEGIN;
    for (CLI::App const* command : commands_of(app)) script += branch(*command);
    std::string words;
    for (CLI::App const* command : commands_of(app)) words += command->get_name() + ' ';
    script += "        0,*) words='" + words + option_names(app).substr(1) + "' ;;\n";
    return script + END;
}

}  // namespace tesk::tool
