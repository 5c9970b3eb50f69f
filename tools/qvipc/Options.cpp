#include "tools/qvipc/Options.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

COptions::COptions(std::string command, std::vector<COptionDef> defs)
    : m_command(std::move(command)), m_defs(std::move(defs)) {}

bool COptions::parse(int argc, char** argv, int first) {
    bool onlyPositional = false;
    for (int i = first; i < argc; ++i) {
        const std::string arg = argv[i];
        if (onlyPositional || arg.size() < 2 || arg[0] != '-') {
            m_positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyPositional = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            m_bHelp = true;
            continue;
        }
        if (arg.compare(0, 2, "--") != 0) {
            usage("unknown option '" + arg + "' (see --help)");
            return false;
        }
        const size_t eq = arg.find('=');
        const std::string name =
            arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
        const COptionDef* def = nullptr;
        for (const COptionDef& s : m_defs) {
            if (name == s.name) def = &s;
        }
        if (def == nullptr) {
            usage("unknown option '--" + name + "' (see --help)");
            return false;
        }
        if (!def->takesValue) {
            if (eq != std::string::npos) {
                usage("option '--" + name + "' takes no value");
                return false;
            }
            m_values[name] = "";
            continue;
        }
        if (eq != std::string::npos) {
            m_values[name] = arg.substr(eq + 1);
        } else if (i + 1 < argc) {
            m_values[name] = argv[++i];
        } else {
            usage("option '--" + name + "' needs a value");
            return false;
        }
    }
    return true;
}

bool COptions::begin(int argc, char** argv, int first, const char* help, size_t maxPositional,
                     int* status) {
    if (!parse(argc, argv, first)) {
        *status = EXIT_USAGE;
        return false;
    }
    if (m_bHelp) {
        fputs(help, stdout);
        *status = EXIT_OK;
        return false;
    }
    if (m_positional.size() > maxPositional) {
        *status = usage("unexpected argument '" + m_positional[maxPositional] + "'");
        return false;
    }
    return true;
}

std::string COptions::value(const char* name, const std::string& fallback) const {
    const auto it = m_values.find(name);
    return it == m_values.end() ? fallback : it->second;
}

bool COptions::number(const char* name, unsigned long long min, unsigned long long max,
                      unsigned long long* out) const {
    const auto it = m_values.find(name);
    if (it == m_values.end()) return true;
    const std::string& text = it->second;
    bool digits = !text.empty();
    for (char c : text) digits = digits && c >= '0' && c <= '9';
    errno = 0;
    const unsigned long long v = digits ? strtoull(text.c_str(), nullptr, 10) : 0;
    if (!digits || errno == ERANGE || v < min || v > max) {
        usage("--" + std::string(name) + " must be a whole number from " + std::to_string(min) +
              " to " + std::to_string(max) + ", not '" + text + "'");
        return false;
    }
    *out = v;
    return true;
}

bool COptions::seconds(const char* name, double max, double* out) const {
    const auto it = m_values.find(name);
    if (it == m_values.end()) return true;
    const std::string& text = it->second;
    char* end = nullptr;
    const double v = text.empty() ? 0 : strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(v) || v <= 0 || v > max) {
        char range[64];
        snprintf(range, sizeof range, "%g", max);
        usage("--" + std::string(name) + " must be a number of seconds above 0 and at most " +
              range + ", not '" + text + "'");
        return false;
    }
    *out = v;
    return true;
}

int COptions::usage(const std::string& message) const {
    fprintf(stderr, "qvipc %s: %s\n", m_command.c_str(), message.c_str());
    return EXIT_USAGE;
}

int COptions::fail(const std::string& message) const {
    fprintf(stderr, "qvipc %s: %s\n", m_command.c_str(), message.c_str());
    return EXIT_FAILED;
}
