/// The command line of the support service.
#include <curl/curl.h>

#include <clocale>

#include "commands.h"

int main(int argc, char** argv) {
  static_cast<void>(setlocale(LC_CTYPE, ""));  // where it can't be set, ASCII alone is shown as it is
  curl_global_init(CURL_GLOBAL_DEFAULT);
  TarvoOrvane::Supportctl::Console console = TarvoOrvane::Supportctl::StandardConsole();
  return TarvoOrvane::Supportctl::RunSupportctl(argc, argv, console);
}
