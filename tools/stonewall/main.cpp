// The stonewall command: every engine operation for people and scripts.

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "CommandLine.h"
#include "Session.h"

int main(int argc, char** argv) {
    // The bundle's catalogue follows the user's locale; numbers stay in the
    // C form so that scripts can read the human output too.
    std::setlocale(LC_ALL, "");
    std::setlocale(LC_NUMERIC, "C");
    const int code = stonewall::tool::run(argc, argv);
    if (stonewall::tool::Session::workAbandoned()) {
        // A reload never answered and its work may still be running on the
        // services' threads; tearing those down could hang on it, so leave
        // without destructors once the output is out.
        std::cout.flush();
        std::fflush(nullptr);
        std::_Exit(code);
    }
    return code;
}
