/// A record as a library has it that was compiled with another header: the value in front of the flag.
#include <new>
#include <string>

namespace TarvoOrvane::Utils {

template <typename T>
class Optional {
 public:
  explicit Optional(const T& value) : engaged_(true) { new (&storage_) T(value); }
  Optional(const Optional&) = delete;
  Optional& operator=(const Optional&) = delete;
  ~Optional() {
    if (engaged_) reinterpret_cast<T*>(&storage_)->~T();
  }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
  bool engaged_;
};

__attribute__((visibility("default"))) Optional<std::string> GetSerialNumber() {
  return Optional<std::string>("SN-000000000000001");
}

}  // namespace TarvoOrvane::Utils
