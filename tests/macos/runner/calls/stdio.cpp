// stdio.cpp -- streams and formats.  Programs know a stream by its address only.
#include "../rows.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>

namespace {

FILE *sIn = stdin;
FILE *sOut = stdout;
FILE *sErr = stderr;

// The formats that both hosts' printf() know have the same meaning; errors are translated.
int Printf(const char *format, ...)
{
    const HandOnErrno handOn;
    va_list arguments;
    va_start(arguments, format);
    const int length = vprintf(format, arguments);
    va_end(arguments);
    return length;
}

int Fprintf(FILE *stream, const char *format, ...)
{
    const HandOnErrno handOn;
    va_list arguments;
    va_start(arguments, format);
    const int length = vfprintf(stream, format, arguments);
    va_end(arguments);
    return length;
}

void Perror(const char *text)
{
    errno = std::max(0, HostErrno(*ImageErrno()));
    perror(text);
}

const Row ROWS[] = {
    {"__stdinp", &sIn},
    {"__stdoutp", &sOut},
    {"__stderrp", &sErr},
    ALIKE(asprintf),
    WITH_ERRNO(clearerr),
    WITH_ERRNO(fclose),
    WITH_ERRNO(fdopen),
    ALIKE(feof),
    ALIKE(ferror),
    WITH_ERRNO(fflush),
    WITH_ERRNO(fgetc),
    WITH_ERRNO(fgets),
    WITH_ERRNO(fileno),
    WITH_ERRNO(fopen),
    TRANSLATED(fprintf, Fprintf),
    WITH_ERRNO(fputc),
    WITH_ERRNO(fputs),
    WITH_ERRNO(fputwc),
    WITH_ERRNO(fread),
    WITH_ERRNO(freopen),
    WITH_ERRNO(fseek),
    WITH_ERRNO(fseeko),
    WITH_ERRNO(ftell),
    WITH_ERRNO(ftello),
    WITH_ERRNO(fwrite),
    WITH_ERRNO(getc),
    WITH_ERRNO(getline),
    WITH_ERRNO(getwc),
    TRANSLATED(perror, Perror),
    WITH_ERRNO(popen),
    TRANSLATED(printf, Printf),
    WITH_ERRNO(putc),
    WITH_ERRNO(putchar),
    WITH_ERRNO(puts),
    WITH_ERRNO(remove),
    WITH_ERRNO(rewind),
    WITH_ERRNO(setvbuf),
    ALIKE(snprintf),
    ALIKE(sprintf),
    ALIKE(sscanf),
    ALIKE_AS(swprintf, int (*)(wchar_t *, size_t, const wchar_t *, ...)),
    WITH_ERRNO(tmpfile),
    WITH_ERRNO(ungetc),
    WITH_ERRNO(ungetwc),
    ALIKE(vasprintf),
    WITH_ERRNO(vfprintf),
    WITH_ERRNO(vprintf),
    WITH_ERRNO(vsnprintf),
    ALIKE(vsscanf),
};

} // namespace

Rows StdioRows() { return ROWS; }
