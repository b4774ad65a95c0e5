/// What TSan shall not report, and its options. Linked into every program of the TSan build.
///
/// gRPC, what it uses and OpenSSL are Debian's, built without TSan: it sees their memory accesses in malloc(),
/// free(), memcpy() and the code that their headers put into ours, but not the atomic operations that order them. This
/// hides nothing of the ticket client's: none of its code runs on gRPC's threads but the function that takes gRPC's
/// log lines.

// The names are TSan's.
#define EXPORTED __attribute__((visibility("default")))

extern "C" {

EXPORTED const char* __tsan_default_suppressions() {
  return "race:libgrpc.so\n"
         "race:libgrpc++.so\n"
         "race:libgpr.so\n"
         "race:libupb.so\n"
         "race:libabsl_\n"
         "race:libcares.so\n"
         "race:^grpc::\n"
         "race:libcrypto.so\n"
         "race:libssl.so\n"
         // Its callers are not in the report where they are one of the libraries above. What its headers put into our
         // code stays in sight.
         "race:libstdc++.so\n"
         // gRPC does not join its own threads before the process ends.
         "thread:libgpr.so\n";
}

// It would stay for a second after exit() has taken OpenSSL down, which gRPC's threads may be in the middle of.
EXPORTED const char* __tsan_default_options() { return "atexit_sleep_ms=0"; }

}  // extern "C"
