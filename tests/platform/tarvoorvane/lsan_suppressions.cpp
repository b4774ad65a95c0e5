// LeakSanitizer asks for this by name; other builds never call it.
extern "C" const char* __lsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)

extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:libcares\n";  // gRPC's name lookup through c-ares loses a copy of the host's name
}
