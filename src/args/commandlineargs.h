#pragma once

#include <string>

#include "patchcommandlineargs/patchcommandlineargs.pb.h"

namespace patchmgmt::protobuf {

namespace pb = ::com::zelkor::patch::proto;

// Holder of the decoded invocation arguments. Absent sub-messages read as
// their defaults.
class CommandlineArgsInProtoBuf {
 public:
  // Fills the held message from the file; false (logged) when it cannot be
  // opened or decoded.
  bool LoadFromFile(const std::string& path);
  // Writes the held message to the file, truncating it; false (logged) on
  // failure.
  bool WriteToFile(const std::string& path) const;

  // Debug dump, "Patch arguments recv to tool:\n" + the message's text form.
  void LogArguments() const;
  // The same dump under the heading "Arguments passed to patch tool: ".
  void LogArgumentsPassed() const;

  // Whether the arguments allow a patch run; logs the first failing check.
  // Besides the field checks, the job id must be usable in a file name
  // (IsUsableInFileName).
  bool Validate() const;

  // Turns every relative path of the patch arguments into one under
  // `baseDirectory` (the directory the tool was started in), so that a run
  // that has changed its working directory still uses the paths that were
  // checked. Absolute paths stay byte for byte as given.
  void ResolveRelativePaths(const std::string& baseDirectory);

  const pb::CommandlineArguments& GetArguments() const { return arguments_; }
  pb::CommandlineArguments& MutableArguments() { return arguments_; }
  const pb::PatchArguments& GetPatchArguments() const { return arguments_.patchargs(); }
  const std::string& GetDeploymentScriptPath() const;

  // True (logged as name + " is empty") when `value` is empty.
  static bool IsEmpty(const std::string& name, const std::string& value);
  // True when `path` is an existing directory; logs otherwise.
  static bool IsDirectoryPresent(const std::string& path);
  // True when `jobId` holds no "/" or NUL, is not "." or "..", and has at most
  // kLongestJobIdBytes bytes; logs "job ID is not usable in a file name: "
  // otherwise.
  static bool IsUsableInFileName(const std::string& jobId);

  static constexpr size_t kLongestJobIdBytes = 200;

 private:
  pb::CommandlineArguments arguments_;
};

}  // namespace patchmgmt::protobuf
