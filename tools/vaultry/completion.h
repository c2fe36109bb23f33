// Completions for shells, made from the command line's own definition, so that they can't fall behind it.

#pragma once

#include <string>

namespace CLI {
class App;
}

void PrintCompletion(CLI::App &app, const std::string &shell);
