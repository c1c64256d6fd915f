// The subcommands of `obx`, one line each, in the order `obx help` lists them.
#pragma once

#define OBX_COMMANDS(X) \
    X(help)             \
    X(sources)          \
    X(schema)           \
    X(gen)              \
    X(info)             \
    X(influx)
