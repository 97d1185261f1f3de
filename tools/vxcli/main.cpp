// vxcli: the command-line tool over libvxsdm. It uses only the exported SD
// interface, as any management application would; the frame (cli.cpp) and
// the commands (cmd_*.cpp) do the work.
#include "cli.h"

int main(int argc, char** argv) { return vxcli::run_vxcli(argc, argv); }
