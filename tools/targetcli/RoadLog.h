#pragma once

#include <filesystem>
#include <string>

/// Notes which road a command took in MOSCSI_RUN_DIR/targetcli/roads, a line each:
///
///   2026-01-31T12:00:00Z fast LUN create
///   2026-01-31T12:00:01Z slow ACL create: no such target
///   2026-01-31T12:00:02Z lost LUN delete: ...  (the fast one, ended by a limit or a signal)
///
/// The file is bounded: at 1 MiB it becomes `roads.old`, and a new one begins. A line that can't be
/// written is left out. Threads and processes: any number at the same time.
void NoteRoad(const std::filesystem::path& stateDir, const std::string& road,
              const std::string& form, const std::string& why = "");
