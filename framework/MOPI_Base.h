#pragma once

#include <string>

#include "framework/Export.h"

/// Directories of this installation.
class MO_EXPORT MOPI_Base {
  public:
    MOPI_Base();

    /// The home directory, where the service script is: no trailing "/". Valid while this object
    /// is.
    const char* getHomeDirectory() const { return m_home.c_str(); }

  private:
    std::string m_home;
};
