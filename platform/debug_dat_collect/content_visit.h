/// What an archive holds, in its order: the system's part, then the applications' with their files, commands and units.
/// The rules for that stand here once. The collection is a visitor that takes all it is given; the dry run is one that
/// names it.
#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "app_description.h"
#include "collection_limits.h"
#include "command.h"
#include "system_sources.h"
#include "unique_fd.h"

namespace TARVO::SupportForm {

/// A file of an application.
struct ContentFile {
  std::string name;             ///< The entry's.
  std::string source;           ///< Its path, as a PrintablePath().
  UniqueFd fd;                  ///< Open for reading.
  struct stat status = {};      ///< Its state when it was opened.
  bool binary_allowed = false;  ///< Whether it is taken though it be no text: its description vouches for it.
};

/// Receives what an archive is to hold. `where` is always what a line is about, as under "errors" in the manifest:
/// "apps/NAME".
class ContentVisitor {
 public:
  virtual ~ContentVisitor() = default;

  /// A text about the system. It is only made where source.read() is called.
  virtual void TakeSystem(const SystemSource& source) = 0;
  /// Commands that stand in for each other: the first that gives any output is taken.
  virtual void TakeFirst(const std::vector<CommandEntry>& commands) = 0;
  /// What follows belongs to this application, until the next one begins.
  virtual void BeginApplication(const std::string& app, const AppDescription& description) = 0;
  /// A file of the application, each only once, though several patterns may match it.
  /// @return false to end the search by the pattern that met it.
  virtual bool TakeFile(ContentFile file) = 0;
  /// A command of the application, or its part of the journal. Nothing has run yet.
  virtual void TakeCommand(const CommandEntry& command) = 0;

  /// Something that the archive will not have, or not more of.
  virtual void LeaveOut(const std::string& where, const std::string& why) = 0;
  /// An application that the archive will have nothing of.
  /// @param error  May quote the maker's text.
  virtual void RefuseDescription(const std::string& where, const DescriptionError& error) = 0;
  /// Asked before more files are looked for. A visitor that has no time left tells so itself.
  virtual bool HasTime(const std::string& where) = 0;
};

/// Gives `visitor` all that an archive for these applications holds. What is wrong with a name or a description is left
/// out. Opens files and reads descriptions; runs nothing.
/// @param app_list  The applications' names, a JSON array, as given by whoever asks.
void VisitContent(const Paths& paths, const Limits& limits, const Json::Value& app_list,
                  ContentVisitor& visitor);

}  // namespace TARVO::SupportForm
