// The subcommands, and the options of each.

#pragma once

#include "arguments.h"

#include <CLI/CLI.hpp>

// Makes `app` fill `arguments`.
void DefineCommands(CLI::App &app, Arguments &arguments);
