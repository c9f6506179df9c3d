// File-system locations and wide-path file access. Paths are wide strings, as the host sees them.
#pragma once

#include <cstdio>
#include <string>

namespace lumo {

// The user's roaming application-data folder. The environment variable LUMO_APPDATA, when set
// and not empty, replaces it on every platform (tests and side-by-side installs use it).
std::wstring AppDataDir();
// Our own folder inside it: AppDataDir() + "Lumoapp". Ini files, logs, dumps and the per-phone
// camera-parameter files live here.
std::wstring ProductDataDir();
// Where the audio debug dumps go: the root of drive E: on Windows, where they have always been
// written; ProductDataDir() elsewhere.
std::wstring DebugDumpDir();
wchar_t PathSeparator();
std::wstring JoinPath(const std::wstring& dir, const std::wstring& name);
// Creates one directory level; true when it exists afterwards.
bool CreateDirectoryOneLevel(const std::wstring& path);
bool FileExists(const std::wstring& path);
FILE* OpenFile(const std::wstring& path, const char* mode);
// Replaces `to` with `from` in one step where the system allows it.
bool RenameFile(const std::wstring& from, const std::wstring& to);
std::wstring GetEnvironmentText(const char* name);
// `path` with every symbolic link resolved (a link's own name and its target's compare equal);
// `path` itself when it cannot be resolved. Windows paths are returned as they are.
std::wstring ResolvedPath(const std::wstring& path);
// The full path of `program` as the system would find it on PATH; empty when not found.
std::wstring FindOnPath(const std::wstring& program);

}  // namespace lumo
