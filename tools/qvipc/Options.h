// Command-line parsing shared by the subcommands: "--name value", "--name=value", flags,
// "--help"/"-h" and positional arguments, with checked numbers. Errors become one line on
// stderr and exit status 2, so every subcommand reports bad arguments the same way.
#ifndef TOOLS_QVIPC_OPTIONS_H_
#define TOOLS_QVIPC_OPTIONS_H_

#include <map>
#include <string>
#include <vector>

// Exit statuses of every subcommand.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;  // the operation failed, or a check said no
constexpr int EXIT_USAGE = 2;   // bad arguments

struct COptionDef {
    const char* name;  // without the leading "--"
    bool takesValue;
};

class COptions {
public:
    // command names the subcommand in messages ("ping", "json get").
    COptions(std::string command, std::vector<COptionDef> defs);

    // Parses argv[first..argc). False after printing the error line.
    bool parse(int argc, char** argv, int first);
    // The start of every command: parses, prints help when asked, and refuses positional
    // arguments beyond maxPositional. False when the command ends here with *status.
    bool begin(int argc, char** argv, int first, const char* help, size_t maxPositional,
               int* status);

    bool help() const { return m_bHelp; }
    bool has(const char* name) const { return m_values.count(name) != 0; }
    const std::vector<std::string>& positional() const { return m_positional; }
    std::string value(const char* name, const std::string& fallback) const;

    // Reads --name as a whole number in [min, max] into *out (left alone when absent). False
    // after printing the error line.
    bool number(const char* name, unsigned long long min, unsigned long long max,
                unsigned long long* out) const;
    // Reads --name as seconds (a decimal, e.g. 0.5) in (0, max] into *out.
    bool seconds(const char* name, double max, double* out) const;

    // Prints "qvipc <command>: <message>" on stderr and returns EXIT_USAGE.
    int usage(const std::string& message) const;
    // Prints "qvipc <command>: <message>" on stderr and returns EXIT_FAILED.
    int fail(const std::string& message) const;

private:
    std::string m_command;
    std::vector<COptionDef> m_defs;
    std::map<std::string, std::string> m_values;
    std::vector<std::string> m_positional;
    bool m_bHelp = false;
};

#endif  // TOOLS_QVIPC_OPTIONS_H_
