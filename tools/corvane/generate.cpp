// The man page and the bash completion, from the verb table: generated at
// build time by `corvane --generate man|bash-completion`.
#include <set>
#include <sstream>

#include "inspect.h"
#include "verbs.h"

namespace cvi {
namespace {

// Text for roff: backslashes and dashes escaped, no request at a line start.
std::string roff(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
    return out;
}

// "-m,--method" -> "\fB\-m\fR, \fB\-\-method\fR"
std::string roffNames(const OptionDef& o) {
    std::string out, names = o.names;
    size_t start = 0;
    while (start < names.size()) {
        size_t end = names.find(',', start);
        if (end == std::string::npos) end = names.size();
        if (!out.empty()) out += ", ";
        out += "\\fB" + roff(names.substr(start, end - start)) + "\\fR";
        start = end + 1;
    }
    if (o.value) out += " \\fI" + roff(o.value) + "\\fR";
    return out;
}

std::string roffSynopsis(const VerbDef& v) {
    std::string out = "\\fBcorvane " + roff(v.name) + "\\fR";
    for (const OptionDef& o : v.options) {
        if (isPositional(o)) {
            out += std::string(o.required ? " " : " [") + "\\fI" + roff(o.value) + "\\fR" +
                   (o.many ? "..." : "") + (o.required ? "" : "]");
        } else {
            std::string first = o.names;
            first = first.substr(0, first.find(','));
            out += std::string(o.required ? " " : " [") + "\\fB" + roff(first) + "\\fR" +
                   (o.value ? std::string(" \\fI") + roff(o.value) + "\\fR" : "") +
                   (o.required ? "" : "]");
        }
    }
    return out;
}

void roffOptions(std::ostream& os, std::span<const OptionDef> options) {
    for (const OptionDef& o : options) {
        os << ".TP\n" << (isPositional(o) ? "\\fI" + roff(o.value) + "\\fR" + (o.many ? "..." : "")
                                           : roffNames(o))
           << '\n'
           << roff(o.help) << '\n';
    }
}

std::string words(Complete what) {
    std::string out;
    if (what == Complete::kRecord)
        for (uint32_t i = 0; const CorVaneSchema* s = corVane_recordSchemaAt(i); ++i)
            out += std::string(out.empty() ? "" : " ") + s->name;
    for (const CorVaneMessageInfo* m : allMessages()) {
        const bool command = m->intf == CORVANE_INTF_CMD;
        if (what == Complete::kMethod || (what == Complete::kCommand && command) ||
            (what == Complete::kNotification && !command))
            out += std::string(out.empty() ? "" : " ") + m->name;
    }
    return out;
}

// The option spellings of a list, e.g. "-m --method --hex".
std::string spellings(std::span<const OptionDef> options) {
    std::string out;
    for (const OptionDef& o : options) {
        if (isPositional(o)) continue;
        std::string names = o.names;
        for (char& c : names)
            if (c == ',') c = ' ';
        out += " " + names;
    }
    return out;
}

const char* completionKind(Complete c) {
    switch (c) {
        case Complete::kFile: return "file";
        case Complete::kMethod: return "method";
        case Complete::kRecord: return "record";
        case Complete::kCommand: return "command";
        case Complete::kNotification: return "notification";
        default: return "none";
    }
}

}  // namespace

std::string manPage(const std::string& version) {
    std::ostringstream os;
    os << ".TH CORVANE 1 \"\" \"corvane " << roff(version) << "\" \"User Commands\"\n"
       << ".SH NAME\ncorvane \\- decode, build, send and watch libCorvane message bodies\n"
       << ".SH SYNOPSIS\n"
       << "\\fBcorvane\\fR [\\fB\\-\\-json\\fR] [\\fB\\-\\-bus\\fR \\fIADDRESS\\fR] "
          "\\fIVERB\\fR [\\fIARGUMENTS\\fR]\n.br\n";
    for (const VerbDef& v : verbTable()) os << roffSynopsis(v) << "\n.br\n";
    os << "\\fBcorvane \\-\\-version\\fR\n"
       << ".SH DESCRIPTION\n"
       << "\\fBcorvane\\fR reads, builds, sends and watches the message bodies of libCorvane, the "
          "interface between the voice service and its management side, through the "
          "library's own schemas and bounded decoder. Every verb also takes the options "
          "under OPTIONS, before or after the verb.\n"
       << ".SH VERBS\n";
    for (const VerbDef& v : verbTable()) {
        os << ".SS " << roff(v.name) << "\n" << roff(v.description) << '\n';
        if (!v.options.empty()) {
            os << ".RS\n";
            roffOptions(os, v.options);
            os << ".RE\n";
        }
    }
    os << ".SH OPTIONS\n";
    roffOptions(os, globalOptions());
    os << ".TP\n\\fB\\-\\-version\\fR\nPrint the version and exit.\n"
       << ".TP\n\\fB\\-h\\fR, \\fB\\-\\-help\\fR\nPrint the verbs, or a verb's options, and exit.\n"
       << ".SH INPUT\nWith \\fB\\-\\-hex\\fR the input may be plain hex digits, a dump of "
          "\\fBxxd\\fR(1) or \\fBhexdump \\-C\\fR, a list of 0x values (as \\fBxxd \\-i\\fR "
          "writes it) or such a dump inside log lines: offsets, ascii columns and syslog "
          "prefixes are skipped, and the offsets are checked. It may also be what the D-Bus "
          "tools print of one message: \\fBdbus\\-monitor\\fR(1) (its array of bytes), "
          "\\fBbusctl monitor\\fR (its BYTE lines) or \\fBtshark \\-x\\fR (the whole "
          "D-Bus message, whose body is taken); the member they name is the method.\n"
          ".PP\nWithout \\fB\\-\\-hex\\fR, \\fBdecode\\fR also reads a whole D-Bus message, and "
          "a pcap or pcapng file in the D-Bus link type (231), as \\fBcorvane capture\\fR, "
          "\\fBbusctl capture\\fR and \\fBdbus\\-monitor \\-\\-pcap\\fR write it.\n"
          ".SH WIRESHARK\n\\fBcorvane.lua\\fR, installed under share/corvane/wireshark, shows "
          "every corvane message of such a capture in Wireshark and tshark field by field "
          "(filters such as corvane.method == \"SetLineCallState\"): \\fBtshark \\-X "
          "lua_script:corvane.lua \\-r capture.pcapng \\-V\\fR, or copy it into "
          "~/.local/lib/wireshark/plugins/.\n"
       << ".SH EXIT STATUS\n"
       << ".TP\n0\nDone.\n"
       << ".TP\n1\nThe input was refused: a malformed body, a magic that is not the "
          "message's (or no message's), an empty input, JSON the payload cannot take; for "
          "\\fBcall\\fR, an answer other than 0 or no answer; for \\fBemit\\fR, a send "
          "that failed; for the verbs on the bus, a bus that cannot be reached or went away.\n"
       << ".TP\n2\nBad usage: an unknown verb, option, method or record, a notification "
          "given to \\fBcall\\fR or a command to \\fBemit\\fR, an unreadable input "
          "or a directory, binary data given as hex or hex given as binary, no bus address.\n"
       << ".SH ENVIRONMENT\n.TP\n\\fBCORVANE_BUS\\fR\nThe bus address when \\fB\\-\\-bus\\fR "
          "is not given, e.g. unix:path=/run/corvane/bus.\n"
       << ".TP\n\\fBCORVANE_BUS_TIMEOUT_MS\\fR\nThe timeout of \\fBcall\\fR when "
          "\\fB\\-\\-timeout\\fR is not given (default 5000).\n"
       << ".SH EXAMPLES\n.nf\n"
       << "corvane decode \\-\\-hex capture.hex\n"
       << "corvane decode \\-\\-method SetProfileFQDNServers \\-\\-annotate body.bin\n"
       << "corvane encode \\-m SetLineCallState \\-o body.bin payload.json\n"
       << "corvane schema ProfileFQDNServers\n"
       << "corvane \\-\\-bus unix:path=/tmp/bus monitor \\-\\-json SetLineCallState\n"
       << "corvane capture \\-o x.pcapng \\-\\-timeout 10000\n"
       << "corvane decode x.pcapng\n"
       << "corvane call SetLineCallState '{\"value1\":1,\"value2\":2,\"value3\":0}'\n"
       << "corvane emit OnMakeCall @call.json\n"
       << ".fi\n";
    return os.str();
}

std::string bashCompletion() {
    std::ostringstream os;
    std::string verbs;
    for (const VerbDef& v : verbTable()) verbs += std::string(verbs.empty() ? "" : " ") + v.name;
    os << "# bash completion for corvane (generated by corvane --generate bash-completion)\n"
       << "_corvane()\n{\n"
       << "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
       << "    local methods=\"" << words(Complete::kMethod) << "\"\n"
       << "    local records=\"" << words(Complete::kRecord) << "\"\n"
       << "    local commands=\"" << words(Complete::kCommand) << "\"\n"
       << "    local notifications=\"" << words(Complete::kNotification) << "\"\n"
       << "    local verb= i\n"
       << "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
       << "        case ${COMP_WORDS[i]} in\n"
       << "            " << [&] {
              std::string alt = verbs;
              for (char& c : alt)
                  if (c == ' ') c = '|';
              return alt;
          }() << ") verb=${COMP_WORDS[i]}; break ;;\n"
       << "        esac\n"
       << "    done\n";
    // Values of options, by what they take.
    std::set<std::string> byKind[static_cast<int>(Complete::kNotification) + 1];
    auto collect = [&](std::span<const OptionDef> options) {
        for (const OptionDef& o : options) {
            if (isPositional(o) || !o.value) continue;
            std::string names = o.names;
            for (char& c : names)
                if (c == ',') c = '|';
            byKind[static_cast<int>(o.complete)].insert(names);
        }
    };
    collect(globalOptions());
    for (const VerbDef& v : verbTable()) collect(v.options);
    os << "    case $prev in\n";
    for (int k = 0; k < static_cast<int>(std::size(byKind)); ++k) {
        if (byKind[k].empty()) continue;
        std::string pattern;
        for (const std::string& n : byKind[k]) pattern += (pattern.empty() ? "" : "|") + n;
        os << "        " << pattern << ") ";
        switch (static_cast<Complete>(k)) {
            case Complete::kFile: os << "compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -f -- \"$cur\"))"; break;
            case Complete::kMethod: os << "COMPREPLY=($(compgen -W \"$methods\" -- \"$cur\"))"; break;
            case Complete::kRecord: os << "COMPREPLY=($(compgen -W \"$records $methods\" -- \"$cur\"))"; break;
            default: os << "COMPREPLY=()"; break;
        }
        os << "; return ;;\n";
    }
    os << "    esac\n"
       << "    local opts=\"" << spellings(globalOptions()).substr(1) << " --help\" positional=none\n"
       << "    case $verb in\n"
       << "        \"\") opts+=\" --version\"; positional=verb ;;\n";
    for (const VerbDef& v : verbTable()) {
        const char* kind = "none";
        for (const OptionDef& o : v.options)
            if (isPositional(o) && kind == std::string("none")) kind = completionKind(o.complete);
        os << "        " << v.name << ") opts+=\"" << spellings(v.options) << "\"; positional="
           << kind << " ;;\n";
    }
    os << "    esac\n"
       << "    if [[ $cur == -* ]]; then\n"
       << "        COMPREPLY=($(compgen -W \"$opts\" -- \"$cur\"))\n"
       << "        return\n"
       << "    fi\n"
       << "    case $positional in\n"
       << "        verb) COMPREPLY=($(compgen -W \"" << verbs << "\" -- \"$cur\")) ;;\n"
       << "        file) compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -f -- \"$cur\")) ;;\n"
       << "        method) COMPREPLY=($(compgen -W \"$methods\" -- \"$cur\")) ;;\n"
       << "        record) COMPREPLY=($(compgen -W \"$records $methods\" -- \"$cur\")) ;;\n"
       << "        command) COMPREPLY=($(compgen -W \"$commands\" -- \"$cur\")) ;;\n"
       << "        notification) COMPREPLY=($(compgen -W \"$notifications\" -- \"$cur\")) ;;\n"
       << "        *) COMPREPLY=() ;;\n"
       << "    esac\n"
       << "}\n"
       << "complete -F _corvane corvane\n";
    return os.str();
}

}  // namespace cvi
