#include "app_list.h"

#include <json/reader.h>

#include <memory>
#include <stdexcept>

namespace TARVO::SupportForm {

Json::Value ParseAppList(const std::string& text, const std::string& where) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // takes time that grows with the square of the text's length
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value list;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &list, &errors) || !list.isArray()) {
    throw std::runtime_error(where + " holds no JSON array of application names: " + errors);
  }
  return list;
}

}  // namespace TARVO::SupportForm
