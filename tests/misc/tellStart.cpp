// tellStart -- writes what it was started with: the number of its arguments, each of them, and each
// variable of its environment, all ended by NUL.
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

static void Tell(const char *text) { fwrite(text, 1, strlen(text) + 1, stdout); }

int main(int argc, char **argv)
{
    Tell(std::to_string(argc).c_str());
    for (int i = 0; i < argc; i++) {
        Tell(argv[i]);
    }
    for (char **variable = environ; *variable != nullptr; variable++) {
        Tell(*variable);
    }
}
