// The subcommands of qvipc. Each takes the whole argv with argv[first] the first argument
// after its name, prints its own --help, and returns the process's exit status.
#ifndef TOOLS_QVIPC_COMMANDS_H_
#define TOOLS_QVIPC_COMMANDS_H_

int RunServe(int argc, char** argv, int first);
int RunPing(int argc, char** argv, int first);
int RunSweep(int argc, char** argv, int first);
int RunJson(int argc, char** argv, int first);
int RunParams(int argc, char** argv, int first);

#endif  // TOOLS_QVIPC_COMMANDS_H_
