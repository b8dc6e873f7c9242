// The daemon's fixed paths and their environment overrides. Each function
// returns the default unless its variable is set (tests, demo, non-root runs);
// the environment is read on every call.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <string>

namespace mox_host {

// The first two defaults follow the install prefix given at configure time.
std::string DbusConfigPath();  // MOX_DBUS_CONFIG   ${datadir}/mox/mox_dbus_config.xml
std::string StatusFilePath();  // MOX_STATUS_FILE   /tmp/.mox-engine
std::string PluginDir();       // MOX_PLUGIN_DIR    ${libdir}/mox/plugins/
std::string AppDataDir();      // MOX_APP_DATA_DIR  /opt/usr/apps/moxhub/data
std::string UsbRoot();         // MOX_USB_ROOT      /opt/storage/usb
std::string CaBundlePath();    // MOX_CA_BUNDLE     /opt/down/cert/ca.pem
std::string VconfDir();        // MOX_VCONF_DIR     /var/lib/mox/vconf
std::string FeaturesFile();    // MOX_FEATURES_FILE /etc/mox/features
std::string LibraryDir();      // MOX_LIBRARY_DIR   /var/lib/mox/library

}  // namespace mox_host

#pragma GCC visibility pop
