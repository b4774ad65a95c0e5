// LeakSanitizer asks for this by name; other builds never call it.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
  return "leak:libcares\n";  // gRPC's name lookup through c-ares loses a copy of the host's name
}
