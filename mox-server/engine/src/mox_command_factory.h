// CMOXCommandFactory: makes the command object named by a command
// document's "mox_command" member, for one kind of request method.
// Stateless; any thread.
#pragma once

#include <memory>
#include <string>

#include "mox_command.h"

class CMOXCommandFactory {
public:
    // The kind a "mox_command" value belongs to; false for any other text.
    static bool KindOf(const std::string& strName, EMOXCommandKind& eKind);

    // NULL, with one warning, when the document is not a JSON object, names
    // no command this engine carries out, or names a command of another kind
    // than eKind. fnProgress is used by file transfers only.
    static std::unique_ptr<IMOXCommand> GetCommand(EMOXCommandKind eKind, const std::string& strCommand,
                                                   MOXCommandCallback fnDone, MOXProgressCallback fnProgress = {});
};
