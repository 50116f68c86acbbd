// postwell: the command line tool of the mail server package; see cli.h.

#include "cli.h"

int main(int argc, char **argv) { return runCli(argc, argv); }
