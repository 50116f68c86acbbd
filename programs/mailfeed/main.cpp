// mailfeed: the feed from Postfix's log to the mail log's collector; see cli.h.

#include "cli.h"

int main(int argc, char **argv) { return runCli(argc, argv); }
