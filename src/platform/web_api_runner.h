/// The platform's web API runner (libwebapi-Pelk5), as the daemon calls it.
///
/// A device maker brings this library; the names and signatures below are its binary interface
/// and stay as they are.
#pragma once

#include <json/value.h>

namespace TARVO {

class __attribute__((visibility("default"))) APIRunner {
 public:
  /// Runs one method of a web API in the calling process and writes its JSON answer into `out`.
  /// Runs in the transmission child.
  /// @param out      Receives the answer, an object: {"success": true, "data": {...}} or
  ///                 {"success": false, "error": {...}}.
  /// @param api      The API's name, for instance "TARVO.Core.SupportForm.Log".
  /// @param version  The API's version, from 1.
  /// @param method   The method's name.
  /// @param params   The method's parameters, an object.
  /// @param user     The name of the user on whose behalf the method runs.
  /// @return The library's own verdict; the daemon goes by `out` alone.
  static bool Exec(Json::Value& out, const char* api, int version, const char* method,
                   const Json::Value& params, const char* user);
};

}  // namespace TARVO
