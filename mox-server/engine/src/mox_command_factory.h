// CMOXCommandFactory: makes the command object named by a command
// document's "mox_command" member. Stateless; any thread.
#pragma once

#include <memory>
#include <string>

#include "mox_command.h"

class CMOXCommandFactory {
public:
    // NULL, with the warning "Unknown command[%s].", when the document is not
    // a JSON object or names no command this engine carries out.
    std::unique_ptr<IMOXCommand> GetCommand(std::string& strCommand, MOXCommandCallback pfnCallback,
                                            void* pUserData);
};
