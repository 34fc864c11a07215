#ifndef VIDORA_STREAMSOURCE_NOTIFYINGSOURCE_H
#define VIDORA_STREAMSOURCE_NOTIFYINGSOURCE_H

#include "StreamSource/IdList.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

// CNotifyingSource: a data source with the list of those who get its messages.
//
// THREADING  Any thread.
class CNotifyingSource : public CDataSource {
public:
    // One that can't be added is told that there will be nothing for it.
    void AddNotify(long notify_id) final {
        if (!add_notify(notify_id)) {
            Notify(notify_id, MSG_SRC_FAIL, 0);
        }
    }
    void DelNotify(long notify_id) final { m_notify_list.Remove(notify_id); }
    // A source that has nothing to read anew is ready with what it has.
    int UpdataDataSrc(long) override {
        notify_all(MSG_SRC_READY);
        return 0;
    }

protected:
    // False, with a log line, if memory is short.
    bool add_notify(long notify_id) { return m_notify_list.Add(notify_id); }
    void notify_all(unsigned int msg) {
        m_notify_list.ForEach([this, msg](long id) { Notify(id, msg, 0); });
    }

private:
    CNotifyList m_notify_list;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_NOTIFYINGSOURCE_H
