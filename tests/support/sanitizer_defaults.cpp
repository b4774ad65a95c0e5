/// Linked into every program of the sanitized build: where its reports go.

// The names are the sanitizers'; a program's own functions come before theirs.
#define EXPORTED __attribute__((visibility("default")))

extern "C" {

// Not by the environment, which a collection task gets none of. A daemon's standard error is the null device.
EXPORTED const char* __asan_default_options() { return "log_path=" REPORT_FOLDER "/report"; }
EXPORTED const char* __ubsan_default_options() {
  return "print_stacktrace=1:log_path=" REPORT_FOLDER "/report";
}

// Or else it would report the leaks that it leaves out.
EXPORTED const char* __lsan_default_options() { return "print_suppressions=0"; }

}  // extern "C"
