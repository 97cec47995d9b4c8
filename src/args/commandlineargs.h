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
  bool Validate() const;

  const pb::CommandlineArguments& GetArguments() const { return arguments_; }
  pb::CommandlineArguments& MutableArguments() { return arguments_; }
  const pb::PatchArguments& GetPatchArguments() const { return arguments_.patchargs(); }
  const std::string& GetDeploymentScriptPath() const;

  // True (logged as name + " is empty") when `value` is empty.
  static bool IsEmpty(const std::string& name, const std::string& value);
  // True when `path` is an existing directory; logs otherwise.
  static bool IsDirectoryPresent(const std::string& path);

 private:
  pb::CommandlineArguments arguments_;
};

}  // namespace patchmgmt::protobuf
