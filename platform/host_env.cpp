#include "host_env.h"

#include <cstdlib>

#include <mox_host_paths.h>

// Set by the build from the install prefix; these fallbacks serve a build
// that does not define them.
#ifndef MOX_DEFAULT_DBUS_CONFIG
#define MOX_DEFAULT_DBUS_CONFIG "/usr/share/mox/mox_dbus_config.xml"
#endif
#ifndef MOX_DEFAULT_PLUGIN_DIR
#define MOX_DEFAULT_PLUGIN_DIR "/usr/lib/mox/plugins/"
#endif

namespace mox_host {

std::string EnvOr(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return (value && *value) ? std::string(value) : std::string(fallback);
}

std::string DbusConfigPath() {
    return EnvOr("MOX_DBUS_CONFIG", MOX_DEFAULT_DBUS_CONFIG);
}
std::string StatusFilePath() {
    return EnvOr("MOX_STATUS_FILE", "/tmp/.mox-engine");
}
std::string PluginDir() {
    return EnvOr("MOX_PLUGIN_DIR", MOX_DEFAULT_PLUGIN_DIR);
}
std::string AppDataDir() {
    return EnvOr("MOX_APP_DATA_DIR", "/opt/usr/apps/moxhub/data");
}
std::string UsbRoot() {
    return EnvOr("MOX_USB_ROOT", "/opt/storage/usb");
}
std::string CaBundlePath() {
    return EnvOr("MOX_CA_BUNDLE", "/opt/down/cert/ca.pem");
}
std::string VconfDir() {
    return EnvOr("MOX_VCONF_DIR", "/var/lib/mox/vconf");
}
std::string LibraryDir() {
    return EnvOr("MOX_LIBRARY_DIR", "/var/lib/mox/library");
}
std::string FeaturesFile() {
    return EnvOr("MOX_FEATURES_FILE", "/etc/mox/features");
}

}  // namespace mox_host
