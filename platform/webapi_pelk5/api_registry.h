#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

namespace TARVO {

/// One method of a web API: takes the parameters, returns the answer's "data", throws ApiError on failure.
using ApiMethod = std::function<Json::Value(const Json::Value& params)>;

/// The methods that the runner knows, by API, version and name.
class ApiRegistry {
 public:
  void Add(const std::string& api, int version, const std::string& method, ApiMethod run);

  /// Runs one method for `user`, who must be "admin". Throws nothing but what building the answer throws.
  /// @return The whole answer, successful or not.
  [[nodiscard]] Json::Value Run(const char* api, int version, const char* method, const Json::Value& params,
                                const char* user) const;

 private:
  struct Entry {
    std::string api;
    int version;
    std::string method;
    ApiMethod run;
  };

  [[nodiscard]] const ApiMethod& Find(const char* api, int version, const char* method) const;

  std::vector<Entry> entries_;
};

}  // namespace TARVO
