#include "args/commandlineargs.h"

#include <Poco/Exception.h>
#include <Poco/File.h>

#include <cerrno>
#include <fstream>

#include "util/filewriter.h"
#include "util/log.h"
#include "zelkor/strerror.h"

namespace patchmgmt::protobuf {

namespace {

// What stat() says of a path, without letting an unreadable path escape as an
// exception: validation reports bad input as false, never by throwing.
enum class PathKind { kMissing, kDirectory, kRegularFile, kOther };

PathKind KindOf(const std::string& path) {
  try {
    Poco::File file(path);
    if (path.empty() || !file.exists()) return PathKind::kMissing;
    if (file.isDirectory()) return PathKind::kDirectory;
    if (file.isFile()) return PathKind::kRegularFile;
    return PathKind::kOther;
  } catch (const Poco::Exception&) {
    return PathKind::kMissing;
  }
}

}  // namespace

bool CommandlineArgsInProtoBuf::LoadFromFile(const std::string& path) {
  std::ifstream in(path, std::ios::in | std::ios::binary);
  if (!in.is_open()) {
    const int error = errno;
    PM_ERROR("Failed to open protobuf file: " << path << " error: " << util::strerror(error));
    return false;
  }
  if (!arguments_.ParseFromIstream(&in)) {
    PM_ERROR("Error in deserializing protobuf file: " << path);
    return false;
  }
  return true;
}

bool CommandlineArgsInProtoBuf::WriteToFile(const std::string& path) const {
  std::string bytes;
  if (!arguments_.SerializeToString(&bytes)) {
    PM_ERROR("Failed to serialise proto file: " << path);
    return false;
  }
  // Written whole, then put in place: a reader never finds half an argument
  // file, which would decode as a different, shorter request.
  const FileWriteError failure = ReplaceFile(path, bytes);
  if (failure.step == FileWriteError::kOpen) {
    PM_ERROR("Failed to open file: " << path << " error: " << failure.Text());
    return false;
  }
  if (failure) {
    PM_ERROR("Failed to serialise proto file: " << path);
    return false;
  }
  return true;
}

void CommandlineArgsInProtoBuf::LogArguments() const {
  PM_DEBUG("Patch arguments recv to tool:\n" << arguments_.DebugString());
}

void CommandlineArgsInProtoBuf::LogArgumentsPassed() const {
  PM_DEBUG("Arguments passed to patch tool: " << arguments_.DebugString());
}

const std::string& CommandlineArgsInProtoBuf::GetDeploymentScriptPath() const {
  return arguments_.patchargs().deploymentscriptspaths().deploymentscriptpath();
}

bool CommandlineArgsInProtoBuf::IsEmpty(const std::string& name, const std::string& value) {
  if (!value.empty()) return false;
  PM_ERROR(name << " is empty");
  return true;
}

bool CommandlineArgsInProtoBuf::IsDirectoryPresent(const std::string& path) {
  if (KindOf(path) == PathKind::kDirectory) return true;
  PM_ERROR("directory path not exist: " << path);
  return false;
}

bool CommandlineArgsInProtoBuf::Validate() const {
  if (arguments_.operationtype() != pb::CommandlineArguments::PATCH) return false;

  const pb::PatchArguments& patch = arguments_.patchargs();
  if (IsEmpty("VendorId", patch.vendorid()) || IsEmpty("job ID", patch.jobid()) ||
      IsEmpty("manifest ID", patch.manifestid()) ||
      IsEmpty("manifest Directory", patch.manifestdirectorypath()) ||
      IsEmpty("result Directory", patch.resultdirectory())) {
    return false;
  }
  if (!IsDirectoryPresent(patch.manifestdirectorypath()) || !IsDirectoryPresent(patch.resultdirectory())) {
    return false;
  }
  if (IsEmpty("Status DB FilePath", patch.statusdbpath())) return false;

  // The remaining failures carry no line of their own; the caller's general
  // validation message is their record.
  if (patch.ahsmessagedir().empty() || !arguments_.has_patchargs()) return false;
  if (!patch.has_deploymentscriptspaths() || GetDeploymentScriptPath().empty()) return false;

  if (KindOf(GetDeploymentScriptPath()) != PathKind::kRegularFile) {
    PM_ERROR("file path not exist: " << GetDeploymentScriptPath());
    return false;
  }

  if (patch.has_interimresultoption() && patch.interimresultoption().isinterimresultenable() &&
      patch.interimresultoption().interimresultdir().empty()) {
    return false;
  }
  return IsUsableInFileName(patch.jobid());
}

bool CommandlineArgsInProtoBuf::IsUsableInFileName(const std::string& jobId) {
  // The job id becomes part of the names of the result document and of the
  // exit-code file. A separator or a dot name would put them outside the
  // result directory, and a name longer than a file system allows would leave
  // the agent with no outcome at all.
  const bool usable = jobId.find('/') == std::string::npos && jobId.find('\0') == std::string::npos &&
                      jobId != "." && jobId != ".." && jobId.size() <= kLongestJobIdBytes;
  if (!usable) PM_ERROR("job ID is not usable in a file name: " << jobId);
  return usable;
}

void CommandlineArgsInProtoBuf::ResolveRelativePaths(const std::string& baseDirectory) {
  pb::PatchArguments& patch = *arguments_.mutable_patchargs();
  auto resolve = [&baseDirectory](const std::string& path) {
    return path.empty() || path[0] == '/' ? path : baseDirectory + "/" + path;
  };
  patch.set_manifestdirectorypath(resolve(patch.manifestdirectorypath()));
  patch.set_statusdbpath(resolve(patch.statusdbpath()));
  patch.set_ahsmessagedir(resolve(patch.ahsmessagedir()));
  patch.set_resultdirectory(resolve(patch.resultdirectory()));
  if (patch.has_interimresultoption()) {
    auto* interim = patch.mutable_interimresultoption();
    interim->set_interimresultdir(resolve(interim->interimresultdir()));
  }
  if (patch.has_deploymentscriptspaths()) {
    auto* scripts = patch.mutable_deploymentscriptspaths();
    scripts->set_deploymentscriptpath(resolve(scripts->deploymentscriptpath()));
  }
}

}  // namespace patchmgmt::protobuf
