// Until the framework's log is linked into these tests: weak, so that the real one takes its place.
#include <cstdarg>
#include <cstdio>

extern "C" __attribute__((weak, format(printf, 2, 3))) int agentlog_fprintf(FILE *stream,
                                                                            const char *format,
                                                                            ...) {
  va_list arguments;
  va_start(arguments, format);
  int length = vfprintf(stream, format, arguments);
  va_end(arguments);
  return length;
}
