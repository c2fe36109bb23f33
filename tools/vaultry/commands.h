// The subcommands. Each returns an exit code, or throws CommandFailure when there is nothing more to do.

#pragma once

#include "arguments.h"

int RunInit(const Arguments &arguments);
int RunAdd(const Arguments &arguments);
int RunList(const Arguments &arguments);
int RunShow(const Arguments &arguments);
int RunCopy(const Arguments &arguments);
int RunRestore(const Arguments &arguments);
int RunUndo(const Arguments &arguments);
int RunMoved(const Arguments &arguments);
int RunDiff(const Arguments &arguments);
int RunSet(const Arguments &arguments);
int RunRemove(const Arguments &arguments);
int RunPrune(const Arguments &arguments);
int RunPin(const Arguments &arguments); // and unpin
int RunSeal(const Arguments &arguments);
int RunUsage(const Arguments &arguments);
int RunClone(const Arguments &arguments);
int RunCheck(const Arguments &arguments);
int RunDestroy(const Arguments &arguments);
