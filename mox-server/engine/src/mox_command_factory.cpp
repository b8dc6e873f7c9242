#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_command_factory.h"

#include <mox/json_value.h>
#include <mox/mox_log.h>

#include "mox_act_command.h"
#include "mox_bus_text.h"
#include "mox_request_detail_command.h"
#include "mox_request_list_command.h"
#include "mox_request_meta_command.h"

std::unique_ptr<IMOXCommand> CMOXCommandFactory::GetCommand(std::string& strCommand, MOXCommandCallback pfnCallback,
                                                            void* pUserData) {
    CJsonValue doc(strCommand);
    std::string strName;
    if (doc.IsValid() && doc.IsString("mox_command")) doc.Get("mox_command", strName);
    if (strName == "mox_requestlist") return std::make_unique<CMOXRequestListCommand>(pfnCallback, pUserData);
    if (strName == "mox_requestdetail") return std::make_unique<CMOXRequestDetailCommand>(pfnCallback, pUserData);
    if (strName == "mox_uploadcomment" || strName == "mox_setlike" || strName == "mox_file_transfer" ||
        strName == "mox_create_album")
        return std::make_unique<CMOXActCommand>(pfnCallback, pUserData);
    if (strName == "mox_requestmeta") return std::make_unique<CMOXRequestMetaCommand>(pfnCallback, pUserData);
    MOX_WARN("Unknown command[%s].", mox_bus::ForLog(strName).c_str());
    return nullptr;
}
