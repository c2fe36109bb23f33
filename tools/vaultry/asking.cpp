// See asking.h.

#include "asking.h"

#include <cstdio>
#include <string_view>

bool Confirmed(const std::string &question)
{
    fprintf(stderr, "%s [y/N] ", question.c_str());
    char answer[16];
    if (!fgets(answer, sizeof answer, stdin)) {
        fputc('\n', stderr);
        return false;
    }
    const std::string_view text = answer;
    return text == "y\n" || text == "Y\n" || text == "yes\n";
}
