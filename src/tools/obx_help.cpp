#include "tools/obx_command.h"

static int run_help(int argc, char** argv)
{
    if (argc > 2) return obx_command_usage_error(&obx_command_help, "one command at most");
    if (argc == 1) {
        obx_print_program_usage(stdout);
        return OBX_EXIT_OK;
    }
    if (argv[1][0] == '-' && argv[1][1] != '\0') return obx_command_print_help(&obx_command_help);
    const obx_command_t* command = obx_command_find(argv[1]);
    if (!command) return obx_command_usage_error(&obx_command_help, "unknown command '%s'", argv[1]);
    return obx_command_print_help(command);
}

const obx_command_t obx_command_help = {
    "help",
    "list the commands, or print the usage of one",
    "Usage: obx help [command]\n"
    "\n"
    "Without a command, lists the commands; with one, prints its usage, as\n"
    "'obx <command> --help' does.\n",
    run_help,
};
