#include "FakeServer.h"

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QAbstractSocket>
#include <QCoreApplication>
#include <QEventLoop>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <chrono>

namespace {

// A deep copy: see readClient().
QByteArray own(const QByteArray& bytes)
{
    return QByteArray(bytes.constData(), bytes.size());
}

// Runs the queued commands on the server's thread when a posted event reaches it. A posted
// event instead of a queued functor call: the functor's slot object is released through a
// reference count inside QtCore, which ThreadSanitizer cannot see.
class CommandContext : public QObject
{
public:
    explicit CommandContext(std::function<void()> drain) : drainCommands(std::move(drain)) {}

protected:
    void customEvent(QEvent*) override { drainCommands(); }

private:
    std::function<void()> drainCommands;
};

} // namespace

FakeServer::FakeServer()
{
    thread = std::thread([this] { run(); });
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return ready; });
}

FakeServer::~FakeServer()
{
    post([this] { loop->quit(); });
    thread.join();
}

void FakeServer::run()
{
    // First: it gives this thread its event dispatcher, which the server's socket notifier
    // and the posted commands need.
    QEventLoop localLoop;
    loop = &localLoop;
    CommandContext localContext([this] { drainCommands(); });
    QTcpServer localServer;
    localServer.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&localServer, &QTcpServer::newConnection, &localContext, [this] { accept(); });
    {
        std::lock_guard<std::mutex> lock(mutex);
        context = &localContext;
        server = &localServer;
        listenPort = localServer.serverPort();
        ready = true;
    }
    changed.notify_all();

    localLoop.exec();

    std::lock_guard<std::mutex> lock(mutex);
    context = nullptr;
    commands.clear();
    // The sockets are children of the server and go with it.
    sockets.clear();
    parsers.clear();
    server = nullptr;
}

void FakeServer::post(std::function<void()> command)
{
    if (std::this_thread::get_id() == thread.get_id()) {
        command();
        return;
    }
    // The event is posted while the mutex is held: the server thread takes the mutex before
    // it reads the commands, so everything postEvent did inside QtCore (where ThreadSanitizer
    // cannot see Qt's own lock) happens before the server thread handles the command, also
    // its last one, after which the thread tears its event queue down.
    std::lock_guard<std::mutex> lock(mutex);
    commands.push_back(std::move(command));
    if (context)
        QCoreApplication::postEvent(context, new QEvent(QEvent::User));
}

void FakeServer::drainCommands()
{
    std::vector<std::function<void()>> pending;
    {
        std::lock_guard<std::mutex> lock(mutex);
        pending.swap(commands);
    }
    for (auto& command : pending)
        command();
}

int FakeServer::resolve(int client) const
{
    if (client >= 0)
        return client;
    std::unique_lock<std::mutex> lock(mutex);
    // A client's connect can complete before this thread has accepted it: from the test's
    // thread, "the most recent client" waits for the first one to be taken.
    if (std::this_thread::get_id() != thread.get_id())
        changed.wait_for(lock, std::chrono::seconds(5), [this] { return clients > 0; });
    return clients - 1;
}

QTcpSocket* FakeServer::socketFor(int client) const
{
    return client >= 0 && client < int(sockets.size()) ? sockets[size_t(client)] : nullptr;
}

void FakeServer::accept()
{
    while (QTcpSocket* socket = server->nextPendingConnection()) {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        const int index = int(sockets.size());
        sockets.push_back(socket);
        parsers.push_back(std::make_unique<PXParser>(PXParser::ServerFrames));
        QObject::connect(socket, &QTcpSocket::readyRead, context,
                         [this, index] { readClient(index); });
        {
            std::lock_guard<std::mutex> lock(mutex);
            framesByClient.emplace_back();
            clients = int(sockets.size());
        }
        changed.notify_all();
    }
}

void FakeServer::readClient(int client)
{
    QTcpSocket* socket = socketFor(client);
    if (!socket)
        return;
    PXParser& parser = *parsers[size_t(client)];
    parser.feedData(socket->readAll());
    QList<QByteArray> cut;
    Responder current;
    {
        // The record gets copies of its own: an array shared with this thread's temporaries
        // would be freed by the test's thread through reference counts that Qt's own,
        // uninstrumented code drops, which ThreadSanitizer cannot pair up.
        std::lock_guard<std::mutex> lock(mutex);
        for (QByteArray frame; !(frame = parser.getPacket(false)).isEmpty(); cut.append(frame)) {
            allFrames.append(own(frame));
            framesByClient[size_t(client)].append(own(frame));
        }
        current = responder;
    }
    changed.notify_all();
    for (const QByteArray& frame : cut)
        if (current)
            current(*this, client, frame);
}

void FakeServer::setResponder(Responder newResponder)
{
    std::lock_guard<std::mutex> lock(mutex);
    responder = std::move(newResponder);
}

void FakeServer::write(int index, const QByteArray& bytes) const
{
    if (QTcpSocket* socket = socketFor(index)) {
        socket->write(bytes);
        socket->flush();
    }
}

void FakeServer::send(const QByteArray& bytes, int client)
{
    const int index = resolve(client);
    post([this, bytes, index] { write(index, bytes); });
}

void FakeServer::sendLater(const QByteArray& bytes, int delayMs, int client)
{
    const int index = resolve(client);
    post([this, bytes, delayMs, index] {
        QTimer::singleShot(delayMs, context, [this, bytes, index] { write(index, bytes); });
    });
}

void FakeServer::closeClient(int client)
{
    const int index = resolve(client);
    post([this, index] {
        if (QTcpSocket* socket = socketFor(index)) {
            socket->flush();
            socket->close();
        }
    });
}

bool FakeServer::waitForConnections(int count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return clients >= count; });
}

// The frames received from a client (see frames()), null for one that does not exist.
// Callers hold the mutex.
const QList<QByteArray>* FakeServer::framesOf(int client) const
{
    const int index = client >= 0 ? client : clients - 1;
    return client == AllClients            ? &allFrames
           : index >= 0 && index < clients ? &framesByClient[size_t(index)]
                                           : nullptr;
}

QList<QByteArray> FakeServer::frames(int client) const
{
    std::lock_guard<std::mutex> lock(mutex);
    QList<QByteArray> out;
    if (const auto* list = framesOf(client))
        for (const QByteArray& frame : *list)
            out.append(own(frame));
    return out;
}

bool FakeServer::waitForFrames(int count, int timeoutMs, int client) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        const auto* list = framesOf(client);
        return list && list->size() >= count;
    });
}

void FakeServer::clearReceived()
{
    std::lock_guard<std::mutex> lock(mutex);
    allFrames.clear();
    for (auto& list : framesByClient)
        list.clear();
}

QByteArray FakeServer::memoryBytes(quint32 address, int count)
{
    QByteArray out(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        out[i] = char((address + quint32(i)) * 7 + 3);
    return out;
}

void FakeServer::memoryResponder(FakeServer& server, int client, const QByteArray& frame)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    const int flow = pxproto::flowId(frame);
    if (flow == pxproto::request::Read && p[4] >= pxproto::access::Write8)
        return server.send(pxproto::writeAck(), client);
    if (flow != pxproto::request::Read && flow != pxproto::request::BlockRead)
        return;
    const quint32 address = pxproto::getLe32(p + 5);
    const int count = flow == pxproto::request::BlockRead ? int(pxproto::getLe32(p + 9))
                                                          : 1 << (p[4] & 3); // 4: readi8
    server.send(pxproto::readData(address, memoryBytes(address, count).constData(), count), client);
}
