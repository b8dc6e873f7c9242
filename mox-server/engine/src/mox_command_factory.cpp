#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_command_factory.h"

#include <mox/json_value.h>
#include <mox/mox_log.h>

#include "mox_act_command.h"
#include "mox_bus_text.h"
#include "mox_request_detail_command.h"
#include "mox_request_list_command.h"
#include "mox_request_meta_command.h"

bool CMOXCommandFactory::KindOf(const std::string& strName, EMOXCommandKind& eKind) {
    if (strName == "mox_requestlist") {
        eKind = EMOXCommandKind::kList;
    } else if (strName == "mox_requestdetail") {
        eKind = EMOXCommandKind::kDetail;
    } else if (strName == "mox_requestmeta") {
        eKind = EMOXCommandKind::kMeta;
    } else if (strName == "mox_uploadcomment" || strName == "mox_setlike" || strName == "mox_file_transfer" ||
               strName == "mox_create_album") {
        eKind = EMOXCommandKind::kAct;
    } else {
        return false;
    }
    return true;
}

std::unique_ptr<IMOXCommand> CMOXCommandFactory::GetCommand(EMOXCommandKind eKind, const std::string& strCommand,
                                                            MOXCommandCallback fnDone, MOXProgressCallback fnProgress) {
    CJsonValue doc(strCommand);
    std::string strName;
    if (doc.IsValid() && doc.IsString("mox_command")) doc.Get("mox_command", strName);
    EMOXCommandKind eNamed;
    if (!KindOf(strName, eNamed)) {
        MOX_WARN("Unknown command[%s].", mox_bus::ForLog(strName).c_str());
        return nullptr;
    }
    if (eNamed != eKind) {
        MOX_WARN("Command[%s] does not belong to this method: refused.", mox_bus::ForLog(strName).c_str());
        return nullptr;
    }
    switch (eKind) {
        case EMOXCommandKind::kList: return std::make_unique<CMOXRequestListCommand>(std::move(fnDone));
        case EMOXCommandKind::kDetail: return std::make_unique<CMOXRequestDetailCommand>(std::move(fnDone));
        case EMOXCommandKind::kMeta: return std::make_unique<CMOXRequestMetaCommand>(std::move(fnDone));
        case EMOXCommandKind::kAct: return std::make_unique<CMOXActCommand>(std::move(fnDone), std::move(fnProgress));
    }
    return nullptr;
}
