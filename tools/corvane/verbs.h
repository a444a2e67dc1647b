// The verbs and options of `corvane`, once: the command line parser, the
// man page and the bash completion are all built from this table.
#pragma once

#include <span>
#include <string>

namespace cvi {

// What the shell completes for an option's value or a positional argument.
enum class Complete { kNone, kFile, kMethod, kRecord, kCommand, kNotification };

struct OptionDef {
    const char* names;  // "-m,--method" for an option, "FILE" for a positional argument
    const char* value;  // the value's name in help ("METHOD"); nullptr for a flag
    const char* help;
    Complete complete = Complete::kNone;
    bool many = false;  // a positional argument taking any number of values
    bool required = false;
};

struct VerbDef {
    const char* name;
    const char* summary;      // one line, for --help and the man page's list
    const char* description;  // the man page's paragraph
    std::span<const OptionDef> options;
};

std::span<const VerbDef> verbTable();
// Options that every verb takes (--json, --bus), after the verb or before it.
std::span<const OptionDef> globalOptions();

// The name a parsed value is stored under: the first long name without its
// dashes ("method"), or the positional argument's name ("FILE").
std::string optionKey(const OptionDef& o);
bool isPositional(const OptionDef& o);

// corvane.1 (roff) and the bash completion script.
std::string manPage(const std::string& version);
std::string bashCompletion();
// The record and message tables of the Wireshark dissector, as Lua
// (generate_dissector.cpp; tools/dissector/ holds the code that walks them).
std::string dissectorTables(const std::string& version);

}  // namespace cvi
