// What support_service_client.h promises of the curl helpers.
#include <fstream>

#include "answering_server.h"
#include "checks.h"
#include "platform/support_service_client.h"
#include "raw_memory.h"

namespace DebugDatPlatformTest {
namespace {

using TarvoOrvane::Utils::CurlFailedException;
using TarvoOrvane::Utils::CurlFormFailedException;
using TarvoOrvane::Utils::CurlHandle;
using TarvoOrvane::Utils::CurlHeaderList;
using TarvoOrvane::Utils::CurlHttpPost;

CurlHandle NewHandle() { return {curl_easy_init(), &curl_easy_cleanup}; }

CurlHeaderList NewList() { return {nullptr, &curl_slist_free_all}; }

using SetupWriteToString = void (*)(CurlHandle&, std::string&);
using Perform = void (*)(CurlHandle&);
using SlistAppend = void (*)(CurlHeaderList&, const std::string&);
using HttpPostAdd = void (*)(CurlHttpPost&, const std::string&, const CURLformoption&, const std::string&);

/// Made anew for each call, so that a library that keeps what it should copy finds it gone.
std::string HeaderLine(int number) {
  return "X-Number-" + std::to_string(number) + ": a value that is long enough";
}

void ExpectLines(const CurlHeaderList& list, int count) {
  const curl_slist* line = list.get();
  for (int number = 0; number < count; ++number, line = line->next) {
    const std::string fault =
        "after " + std::to_string(count) + " lines the list's line " + std::to_string(number + 1);
    Expect(line != nullptr, fault + " is missing");
    Expect(line->data == HeaderLine(number), fault + " is not what was appended");
  }
  Expect(line == nullptr, "after " + std::to_string(count) + " lines the list has more");
}

void CheckHeaderList(const Platform& platform) {
  constexpr int kLines = 20;
  Guarded<CurlHeaderList> guarded;
  CurlHeaderList& list = *new (guarded.Place()) CurlHeaderList(NewList());
  for (int number = 0; number < kLines; ++number) {
    platform.Get<SlistAppend>(Symbol::kSlistAppend)(list, HeaderLine(number));
    ExpectLines(list, number + 1);
  }
  Expect(guarded.IsIntact(), "memory beside the list's owner was written to");
  list.reset();
}

std::string Answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

void SetUrl(const CurlHandle& handle, const std::string& url) {
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
}

/// The answer comes in many chunks.
void CheckWriteToString(const Platform& platform) {
  constexpr std::size_t kBodyBytes = 100'000;
  std::string body = "{\"success\": true}";
  body.resize(kBodyBytes, ' ');
  body[body.size() / 2] = '\0';
  AnsweringServer server(Answer(body));
  CurlHandle handle = NewHandle();
  SetUrl(handle, server.Url());
  std::string received = "kept";
  platform.Get<SetupWriteToString>(Symbol::kSetupWriteToString)(handle, received);
  platform.Get<Perform>(Symbol::kPerform)(handle);
  Expect(received.rfind("kept", 0) == 0, "what the string held before is gone");
  Expect(received == "kept" + body, "of an answer of " + std::to_string(body.size()) +
                                        " bytes the string got " + std::to_string(received.size()) +
                                        ", or others");
}

/// What the call throws.
template <typename Exception, typename Call>
void ExpectThrown(const char* name, const Call& call, const std::function<bool(const Exception&)>& is_right) {
  try {
    call();
  } catch (const Exception& error) {
    Expect(is_right(error), std::string("the code in the ") + name + " is " + std::to_string(error.code));
    Expect(CanBeRead(error.what()) && error.what()[0] != '\0', std::string("the ") + name + " has no text");
    return;
  } catch (const std::exception& error) {
    throw Fault("what was thrown can't be caught as " + std::string(name) + ": " + error.what());
  }
  throw Fault("nothing was thrown");
}

void CheckSetupFailure(const Platform& platform) {
  CurlHandle none = {nullptr, &curl_easy_cleanup};
  std::string out;
  ExpectThrown<CurlFailedException>(
      "CurlFailedException",
      [&] { platform.Get<SetupWriteToString>(Symbol::kSetupWriteToString)(none, out); },
      [](const auto& error) { return error.code != CURLE_OK; });
}

void CheckPerformFailure(const Platform& platform) {
  const ClosedPort closed;
  CurlHandle handle = NewHandle();
  SetUrl(handle, "http://" + closed.Address() + "/");
  ExpectThrown<CurlFailedException>(
      "CurlFailedException", [&] { platform.Get<Perform>(Symbol::kPerform)(handle); },
      [](const auto& error) { return error.code == CURLE_COULDNT_CONNECT; });
}

struct Part {
  std::string name;
  CURLformoption option;
  std::string value;
};

/// Adds parts to a form as the daemon does, from texts that are gone afterwards.
void AddParts(const Platform& platform, CurlHttpPost& form, const std::vector<Part>& parts) {
  for (Part part : parts) {
    platform.Get<HttpPostAdd>(Symbol::kHttpPostAdd)(form, part.name, part.option, part.value);
    part.name.assign(part.name.size(), '#');
    part.value.assign(part.value.size(), '#');
  }
}

std::size_t CountOf(const CurlHttpPost& form) {
  std::size_t count = 0;
  for (const curl_httppost* part = form.first.get(); part != nullptr; part = part->next) ++count;
  return count;
}

void SendForm(const Platform& platform, const CurlHttpPost& form, const std::string& url) {
  CurlHandle handle = NewHandle();
  SetUrl(handle, url);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPPOST, form.first.get());
  std::string received;
  platform.Get<SetupWriteToString>(Symbol::kSetupWriteToString)(handle, received);
  platform.Get<Perform>(Symbol::kPerform)(handle);
}

/// What the request has of a part, from its name to the next boundary; empty when there is none of that name.
std::string PartIn(const std::string& request, const std::string& name, std::size_t& from) {
  const std::size_t begin = request.find("name=\"" + name + "\"", from);
  if (begin == std::string::npos) return {};
  from = request.find("\r\n--", begin);
  return request.substr(begin, from == std::string::npos ? from : from - begin);
}

/// The archive's name in the request, and its content, which is another when the part is added.
void CheckFormParts(const Platform& platform, const ScratchFolder& scratch) {
  const std::string path = scratch.NewPath("debug.dat");
  WriteText(path, "");
  const std::vector<Part> parts = {{"debug_file", CURLFORM_FILE, path},
                                   {"serial_number", CURLFORM_COPYCONTENTS, ""},
                                   {"debug_data_apps[0]", CURLFORM_COPYCONTENTS, "mail"},
                                   {"debug_data_apps[1]", CURLFORM_COPYCONTENTS, "web"}};
  const std::vector<std::string> contents = {"what the archive holds", "", "mail", "web"};
  Guarded<CurlHttpPost> guarded;
  CurlHttpPost& form = *new (guarded.Place()) CurlHttpPost;
  AddParts(platform, form, parts);
  WriteText(path, contents[0]);
  Expect(guarded.IsIntact(), "memory beside the form was written to");
  Expect(CountOf(form) == parts.size(),
         "the form has " + std::to_string(CountOf(form)) + " of " + std::to_string(parts.size()) + " parts");
  Expect(form.last != nullptr && form.last->next == nullptr, "'last' is not the form's last part");

  AnsweringServer server(Answer("{}"));
  SendForm(platform, form, server.Url());
  const std::string request = server.Request();
  std::size_t from = 0;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::string part = PartIn(request, parts[i].name, from);
    Expect(!part.empty(), "the request has no part " + parts[i].name + " in its place");
    Expect(part.substr(part.find("\r\n\r\n") + 4) == contents[i],
           "the part " + parts[i].name + " has another content");
  }
  form.first.reset();
}

void CheckFormRefusal(const Platform& platform) {
  CurlHttpPost form;
  AddParts(platform, form, {{"serial_number", CURLFORM_COPYCONTENTS, "1"}});
  ExpectThrown<CurlFormFailedException>(
      "CurlFormFailedException",
      [&] {
        AddParts(platform, form, {{"twice", CURLFORM_COPYNAME, "twice"}});
      },  // libcurl refuses it
      [](const auto& error) { return error.code != CURL_FORMADD_OK; });
  Expect(CountOf(form) == 1, "the part that was added before is gone");
}

}  // namespace

std::vector<Check> HttpChecks(const Platform& platform, const ScratchFolder& scratch) {
  const auto on = [&platform](void (*check)(const Platform&)) {
    return [&platform, check] { check(platform); };
  };
  const std::string throws =
      " has to throw the header's own class, with what libcurl returned as its code and a text";
  return {
      {"header-list",
       "it grows, and holds copies",
       "CurlSlistAppend() has to hand the list to curl_slist_append() and its result back to the owner, "
       "freeing neither",
       {Symbol::kSlistAppend},
       on(&CheckHeaderList)},
      {"write-to-string",
       "all of an answer goes to the string's end",
       "CurlSetupWriteToString() has to append each chunk with its size, whatever bytes are in it",
       {Symbol::kSetupWriteToString, Symbol::kPerform},
       on(&CheckWriteToString)},
      {"write-to-string-failure",
       "CurlFailedException without a handle",
       "CurlSetupWriteToString()" + throws,
       {Symbol::kSetupWriteToString},
       on(&CheckSetupFailure)},
      {"perform-failure",
       "CurlFailedException where nobody listens",
       "CurlPerform()" + throws,
       {Symbol::kPerform},
       on(&CheckPerformFailure)},
      {"form-parts",
       "files and texts arrive, in their order",
       "CurlHttpPostAdd() has to call curl_formadd() with CURLFORM_COPYNAME, the name, the option and the "
       "value",
       {Symbol::kHttpPostAdd, Symbol::kSetupWriteToString, Symbol::kPerform},
       [&] { CheckFormParts(platform, scratch); }},
      {"form-refusal",
       "CurlFormFailedException, and the form stays",
       "CurlHttpPostAdd()" + throws + ", and to leave the other parts",
       {Symbol::kHttpPostAdd},
       on(&CheckFormRefusal)},
  };
}

}  // namespace DebugDatPlatformTest
