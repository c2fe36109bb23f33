// See assignment.h.

#include "assignment.h"

#include "failure.h"
#include "json.h"
#include "text.h"

Assignment ParseAssignment(const std::string &assignment)
{
    const size_t equals = assignment.find('=');
    const bool typed = equals != std::string::npos && equals > 0 && assignment[equals - 1] == ':';
    const size_t end = typed ? equals - 1 : equals;
    if (equals == std::string::npos || end == 0)
        throw CommandFailure(kExitUsage, Quoted(assignment) + " is neither key=text nor key:=json");

    const std::string text = assignment.substr(equals + 1);
    Assignment parsed{assignment.substr(0, end), {}};
    if (typed) {
        parsed.value = ParseValue(text);
    } else {
        parsed.value = Owned<TQValue>(TQStringCreateWithBytes(text.data(), text.size()));
    }
    if (!parsed.value || !MakeString(parsed.key))
        throw CommandFailure(kExitUsage, Quoted(assignment) + ": keys and texts have to be UTF-8");
    return parsed;
}
