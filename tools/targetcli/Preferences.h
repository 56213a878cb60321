#pragma once

#include <string>

#include "tools/targetcli/Interrupts.h"
#include "tools/targetcli/Settings.h"
#include "tools/targetcli/SupervisedRun.h"
#include "tools/targetcli/TemporaryDirectory.h"
#include "tools/targetcli/TimeLimit.h"

/// The preferences that targetcli runs with here. Two of its defaults are wrong for the plug-in:
/// auto_add_mapped_luns would show a new LUN to every initiator that the target knows, and
/// auto_use_daemon would let another process do the work. They can't be given on a command line, a
/// file written by hand lacks keys that targetcli then misses, and targetcli rewrites its file in
/// most runs, before it takes its lock. So targetcli itself makes a set once, and each run gets a
/// copy of that; the user's own stay as they are.
///
/// The set lies in MOSCSI_RUN_DIR/targetcli/preferences.KEY; KEY stands for the installed
/// targetcli, since another release may want other keys. It appears by a rename, whole, and never
/// changes.
class Preferences {
  public:
    Preferences(const Settings& settings, std::string real, TimeLimit& limit,
                const Interrupts& interrupts);

    /// Fills `copy` with this run's preferences; makes the set first when there is none, once, also
    /// when several runs want it at the same time.
    /// Returns: a status other than 0 and a complaint when that failed; nothing half-made is left.
    Outcome GiveCopy(TemporaryDirectory& copy);

  private:
    Outcome MakeOnce();
    Outcome Make();
    Outcome Take(int lockFd);

    const Settings& m_settings;
    const std::string m_real;
    const std::filesystem::path m_set;
    TimeLimit& m_limit;
    const Interrupts& m_interrupts;
};
