#include "logging.h"

std::string FormatFailureText(const char* format) { return std::string("(snprintf failed)") + format; }
