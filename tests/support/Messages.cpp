#include "support/Messages.h"

namespace tarn::test {

QStringList messagesOf(const std::function<void()>& body)
{
    static QStringList messages;
    messages.clear();
    const QtMessageHandler before = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& message) { messages << message; });
    body();
    qInstallMessageHandler(before);
    return messages;
}

} // namespace tarn::test
