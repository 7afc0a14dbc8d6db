#include "RefServiceRoutes.h"

#include "RefMultipart.h"
#include "RefState.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <openssl/ssl.h>
#include <poll.h>

namespace {

QString qs(const std::string &text)
{
    return QString::fromStdString(text);
}

QString param(const httplib::Request &request, const char *name)
{
    return qs(request.get_param_value(name));
}

bool isTrue(const QString &value)
{
    const QString lower = value.trimmed().toLower();
    return lower == QLatin1String("1") || lower == QLatin1String("true") ||
           lower == QLatin1String("yes");
}

QString hostOf(const httplib::Request &request)
{
    QString host = qs(request.get_header_value("Host"));
    if (host.startsWith(QLatin1Char('['))) {
        return host.section(QLatin1Char(']'), 0, 0).mid(1);
    }
    return host.section(QLatin1Char(':'), 0, 0);
}

QJsonObject describe(const httplib::Request &request, const QString &listener)
{
    QJsonObject params;
    QJsonArray order;
    for (const auto &entry : request.params) {
        params.insert(qs(entry.first), qs(entry.second));
        order.append(qs(entry.first));
    }
    QJsonObject entry{
        {QStringLiteral("listener"), listener},
        {QStringLiteral("method"), qs(request.method)},
        {QStringLiteral("host"), hostOf(request)},
        {QStringLiteral("path"), qs(request.path)},
        {QStringLiteral("target"), qs(request.target)},
        {QStringLiteral("contentType"), qs(request.get_header_value("Content-Type"))},
        {QStringLiteral("userAgent"), qs(request.get_header_value("User-Agent"))},
        {QStringLiteral("remoteAddress"), qs(request.remote_addr)},
        {QStringLiteral("params"), params},
        {QStringLiteral("paramNames"), order},
    };
    // Form bodies are kept as sent, so a test can see the order and escaping of the pairs.
    if (request.get_header_value("Content-Type") == "application/x-www-form-urlencoded") {
        entry.insert(QStringLiteral("body"), qs(request.body.substr(0, 64 * 1024)));
    }
    return entry;
}

// Plays a scripted fault. False when the fault only delays and the real answer follows.
bool applyFault(const QJsonObject &fault, httplib::Response &response, RefState &state)
{
    const int delay = fault.value(QStringLiteral("delayMs")).toInt();
    if (delay > 0 && !state.sleepFor(delay)) {
        response.status = 503;
        return true;
    }
    const bool drop = fault.value(QStringLiteral("drop")).toBool();
    const qint64 bodyBytes = fault.value(QStringLiteral("bodyBytes")).toInteger();
    if (!drop && bodyBytes <= 0 && !fault.contains(QStringLiteral("status")) &&
        !fault.contains(QStringLiteral("body"))) {
        return false;
    }
    response.status = fault.value(QStringLiteral("status")).toInt(200);
    const std::string contentType = fault.value(QStringLiteral("contentType"))
                                        .toString(QStringLiteral("application/json"))
                                        .toStdString();
    const std::string body = fault.value(QStringLiteral("body")).toString().toStdString();
    if (drop) {
        // Announce more than is ever sent, then hang up: the reply is cut off mid-way.
        response.set_content_provider(body.size() + 4096, contentType,
                                      [body](size_t offset, size_t, httplib::DataSink &sink) {
                                          if (offset == 0 && !body.empty()) {
                                              sink.write(body.data(), body.size());
                                          }
                                          return false;
                                      });
    } else if (bodyBytes > 0) {
        const std::string fill =
            fault.value(QStringLiteral("fill")).toString(QStringLiteral("x")).toStdString();
        auto block = std::make_shared<std::string>();
        while (block->size() < 64 * 1024) {
            block->append(fill.empty() ? std::string("x") : fill);
        }
        response.set_content_provider(
            static_cast<size_t>(bodyBytes), contentType,
            [block](size_t offset, size_t length, httplib::DataSink &sink) {
                (void)offset;
                return sink.write(block->data(), std::min(length, block->size()));
            });
    } else {
        response.set_content(body, contentType);
    }
    return true;
}

using Handler = std::function<void(const httplib::Request &, httplib::Response &)>;

// Logs the request, then lets a scripted fault answer before the real handler.
httplib::Server::Handler route(RefState &state, const QString &listener, Handler handler)
{
    return
        [&state, listener, handler](const httplib::Request &request, httplib::Response &response) {
            const QJsonObject entry = describe(request, listener);
            state.logRequest(entry);
            const auto fault =
                state.takeFault(listener, entry.value(QStringLiteral("method")).toString(),
                                entry.value(QStringLiteral("host")).toString(),
                                entry.value(QStringLiteral("path")).toString());
            if (fault && applyFault(*fault, response, state)) {
                return;
            }
            handler(request, response);
        };
}

QJsonObject refusal(const char *key, const QString &text, const char *statusKey = "status",
                    const char *statusValue = "error")
{
    return QJsonObject{{QLatin1String(statusKey), QLatin1String(statusValue)},
                       {QLatin1String(key), text}};
}

QString authMessage(RefState::Auth auth)
{
    return auth == RefState::Auth::UnknownUser ? QStringLiteral("Unknown user")
                                               : QStringLiteral("Incorrect password");
}

QString randomToken()
{
    return QString::number(QRandomGenerator::system()->generate64(), 16) +
           QString::number(QRandomGenerator::system()->generate64(), 16);
}

// True once the client has hung up on a TLS stream; plain streams notice on the next write.
bool peerClosed(int socket)
{
    if (socket < 0) {
        return false;
    }
    pollfd descriptor{socket, POLLRDHUP, 0};
    return poll(&descriptor, 1, 0) > 0 && (descriptor.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

void installAccountRoutes(httplib::Server &server, RefState &state, const QString &listener)
{
    server.Post(
        "/core/register", route(state, listener, [&state](const auto &request, auto &response) {
            QJsonObject account;
            const auto auth =
                state.authenticate(param(request, "user"), param(request, "password"), &account);
            if (auth != RefState::Auth::Ok) {
                ref_reply_json(response, refusal("message", authMessage(auth)));
                return;
            }
            ref_reply_json(response,
                           ref_register_reply(account, isTrue(param(request, "getToken"))));
        }));

    server.Post(
        "/core/createAccount",
        route(state, listener, [&state](const auto &request, auto &response) {
            const QString email = param(request, "email");
            if (!email.contains(QLatin1Char('@')) || param(request, "password").isEmpty()) {
                ref_reply_json(
                    response,
                    refusal("details",
                            QStringLiteral("Please enter a valid email address and password"),
                            "result"));
                return;
            }
            if (state.account(email)) {
                ref_reply_json(response,
                               refusal("details",
                                       QStringLiteral("This email address is already registered"),
                                       "result"));
                return;
            }
            state.putAccount(QJsonObject{{QStringLiteral("username"), email},
                                         {QStringLiteral("password"), param(request, "password")},
                                         {QStringLiteral("firstName"), param(request, "firstName")},
                                         {QStringLiteral("lastName"), param(request, "lastName")},
                                         {QStringLiteral("confirmed"), false}});
            ref_reply_json(response, QJsonObject{{QStringLiteral("result"), QStringLiteral("OK")}});
        }));

    server.Post(
        "/core/resendConfirmationEmail",
        route(state, listener, [&state](const auto &request, auto &response) {
            QJsonObject account;
            const QString email = param(request, "email");
            const auto auth = state.authenticate(email, param(request, "password"), &account);
            if (auth != RefState::Auth::Ok) {
                ref_reply_json(response, refusal("details", authMessage(auth), "result"));
                return;
            }
            const int sent = account.value(QStringLiteral("confirmationEmailsSent")).toInt() + 1;
            state.updateAccount(email,
                                QJsonObject{{QStringLiteral("confirmationEmailsSent"), sent}});
            ref_reply_json(response, QJsonObject{{QStringLiteral("result"), QStringLiteral("OK")}});
        }));

    server.Post(
        "/core/getLoginToken",
        route(state, listener, [&state](const auto &request, auto &response) {
            QJsonObject account;
            const QString username = param(request, "username");
            const auto auth = state.authenticate(username, param(request, "password"), &account);
            if (auth != RefState::Auth::Ok) {
                ref_reply_json(response, refusal("details", authMessage(auth), "status", "fail"));
                return;
            }
            const QString token = randomToken();
            QJsonArray tokens = account.value(QStringLiteral("webTokens")).toArray();
            tokens.append(token);
            state.updateAccount(username, QJsonObject{{QStringLiteral("webTokens"), tokens}});
            ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("pass")},
                                                 {QStringLiteral("details"), token}});
        }));

    server.Post("/core/twitter/updateId",
                route(state, listener, [&state](const auto &request, auto &response) {
                    const QString username = param(request, "user");
                    const auto auth = state.authenticate(username, param(request, "password"));
                    if (auth != RefState::Auth::Ok) {
                        ref_reply_json(response,
                                       refusal("details", authMessage(auth), "status", "fail"));
                        return;
                    }
                    state.updateAccount(
                        username, QJsonObject{{QStringLiteral("twitterId"), param(request, "id")}});
                    ref_reply_json(response,
                                   QJsonObject{{QStringLiteral("status"), QStringLiteral("pass")}});
                }));

    server.Get(
        "/core/isVPNConnected",
        route(state, listener, [&state](const auto &request, auto &response) {
            const QString prefix = state.vpnClientPrefix();
            const bool connected = !prefix.isEmpty() && qs(request.remote_addr).startsWith(prefix);
            ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")},
                                                 {QStringLiteral("connected"), connected}});
        }));

    // The live service answers the probe with a bare "ok" under a JSON content type.
    server.Get("/core/status", route(state, listener, [](const auto &, auto &response) {
                   response.set_content("ok", "application/json");
               }));

    server.Get("/hollowmere/fallroot/config.json",
               route(state, listener, [&state](const auto &, auto &response) {
                   const QJsonObject fallroot = state.fallroot();
                   if (fallroot.isEmpty()) {
                       response.status = 404;
                       response.set_content("<html><body>Not Found</body></html>", "text/html");
                       return;
                   }
                   ref_reply_json(response, fallroot);
               }));
}

const char *const kOriginalContentType = "X-Refservice-Original-Content-Type";

void installUploadRoute(httplib::Server &server, RefState &state, const QString &listener)
{
    // The HTTP library parses every multipart body itself and rejects the client's
    // "attachment" parts. Before it reads the body, the upload's content type is put
    // aside (the request object is not const underneath), so the body arrives raw and is
    // split by ref_parse_multipart instead.
    server.set_pre_routing_handler([](const httplib::Request &request, httplib::Response &) {
        if (request.path == "/core/uploadLogs" && request.is_multipart_form_data()) {
            auto &headers = const_cast<httplib::Headers &>(request.headers);
            const std::string original = request.get_header_value("Content-Type");
            headers.erase("Content-Type");
            headers.emplace("Content-Type", "application/octet-stream");
            headers.emplace(kOriginalContentType, original);
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.Post("/core/uploadLogs", [&state, listener](const httplib::Request &request,
                                                       httplib::Response &response,
                                                       const httplib::ContentReader &reader) {
        QByteArray body;
        reader([&body](const char *data, size_t length) {
            body.append(data, static_cast<qsizetype>(length));
            return true;
        });
        QJsonObject entry = describe(request, listener);
        const QString contentType = request.has_header(kOriginalContentType)
                                        ? qs(request.get_header_value(kOriginalContentType))
                                        : qs(request.get_header_value("Content-Type"));
        const auto boundary = ref_multipart_boundary(contentType);
        const auto parts = boundary ? ref_parse_multipart(body, *boundary) : std::nullopt;
        QJsonObject fields;
        QJsonArray partList;
        QByteArray data;
        for (const RefMultipartPart &part : parts.value_or(QList<RefMultipartPart>())) {
            QJsonObject description{
                {QStringLiteral("name"), part.name},
                {QStringLiteral("disposition"), part.disposition},
                {QStringLiteral("contentType"), part.headers.value(QStringLiteral("content-type"))},
                {QStringLiteral("size"), static_cast<qint64>(part.data.size())}};
            if (part.filename) {
                description.insert(QStringLiteral("filename"), *part.filename);
                if (part.name == QLatin1String("data")) {
                    data = part.data;
                }
            } else {
                fields.insert(part.name, QString::fromUtf8(part.data));
            }
            partList.append(description);
        }
        entry.insert(QStringLiteral("params"), fields);
        entry.insert(QStringLiteral("contentType"), contentType);
        entry.insert(QStringLiteral("parts"), partList);
        state.logRequest(entry);
        const auto fault = state.takeFault(listener, QStringLiteral("POST"), hostOf(request),
                                           QStringLiteral("/core/uploadLogs"));
        if (fault && applyFault(*fault, response, state)) {
            return;
        }
        if (!parts) {
            ref_reply_json(response, refusal("details", QStringLiteral("Malformed upload")), 400);
            return;
        }
        QJsonObject meta = fields;
        meta.insert(QStringLiteral("contentType"), contentType);
        meta.insert(QStringLiteral("parts"), partList);
        QString keepError;
        if (state.addUpload(meta, data, &keepError) < 0) {
            ref_reply_json(
                response, refusal("details", QStringLiteral("Could not keep upload: ") + keepError),
                500);
            return;
        }
        ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")}});
    });
}

void installDashboardRoutes(httplib::Server &server, RefState &state, const QString &listener)
{
    server.Get("/dashboard/getFilter",
               route(state, listener, [&state](const auto &request, auto &response) {
                   QJsonObject account;
                   const auto auth = state.authenticate(param(request, "username"),
                                                        param(request, "password"), &account);
                   if (auth != RefState::Auth::Ok) {
                       ref_reply_json(response, refusal("message", authMessage(auth)), 403);
                       return;
                   }
                   const QJsonObject privacy = account.value(QStringLiteral("privacy")).toObject();
                   if (request.has_param("filter")) {
                       const QString filter = param(request, "filter");
                       ref_reply_json(response,
                                      QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")},
                                                  {QStringLiteral("filter"), filter},
                                                  {QStringLiteral("on"),
                                                   privacy.value(QStringLiteral("filters"))
                                                       .toObject()
                                                       .value(filter)
                                                       .toBool()}});
                       return;
                   }
                   QJsonObject reply = privacy;
                   reply.insert(QStringLiteral("status"), QStringLiteral("ok"));
                   ref_reply_json(response, reply);
               }));

    server.Get(
        "/dashboard/setFilter",
        route(state, listener, [&state](const auto &request, auto &response) {
            QJsonObject account;
            const QString username = param(request, "username");
            const auto auth = state.authenticate(username, param(request, "password"), &account);
            if (auth != RefState::Auth::Ok) {
                ref_reply_json(response, refusal("message", authMessage(auth)), 403);
                return;
            }
            const bool on = isTrue(param(request, "on"));
            QJsonObject privacy = account.value(QStringLiteral("privacy")).toObject();
            QJsonObject filters = privacy.value(QStringLiteral("filters")).toObject();
            if (request.has_param("filter")) {
                filters.insert(param(request, "filter"), on);
            } else {
                privacy.insert(QStringLiteral("globalSwitch"), on);
                for (const QString &name : filters.keys()) {
                    filters.insert(name, on);
                }
            }
            privacy.insert(QStringLiteral("filters"), filters);
            state.updateAccount(username, QJsonObject{{QStringLiteral("privacy"), privacy}});
            ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")}});
        }));

    server.Get("/dashboard/blocks",
               route(state, listener, [&state](const auto &request, auto &response) {
                   const QString username = param(request, "username");
                   const auto auth = state.authenticate(username, param(request, "password"));
                   if (auth != RefState::Auth::Ok) {
                       ref_reply_json(response, refusal("message", authMessage(auth)), 403);
                       return;
                   }
                   auto stream = state.openStream(username);
                   const int socket = request.ssl ? SSL_get_fd(request.ssl) : -1;
                   // Each queued event goes out as one chunk of its own, and nothing else is ever
                   // written: the client only understands chunks that hold whole events.
                   response.set_chunked_content_provider(
                       "text/event-stream",
                       [&state, stream, socket](size_t, httplib::DataSink &sink) {
                           if (const auto chunk = state.nextChunk(stream, 200)) {
                               return sink.write(chunk->data(), chunk->size());
                           }
                           if (state.streamEnded(stream)) {
                               if (state.streamDropped(stream)) {
                                   return false; // no closing chunk: the client sees a failure
                               }
                               sink.done();
                               return true;
                           }
                           return !peerClosed(socket);
                       },
                       [&state, stream](bool) { state.closeStream(stream->id); });
               }));
}

} // namespace

void ref_reply_json(httplib::Response &response, const QJsonObject &object, int status)
{
    response.status = status;
    response.set_content(QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString(),
                         "application/json");
}

QJsonObject ref_register_reply(const QJsonObject &account, bool withToken)
{
    auto field = [&account](const char *key) { return account.value(QLatin1String(key)); };
    const QString plan = field("plan").toString();
    QJsonObject reply{
        {QStringLiteral("emailConfirmed"), field("confirmed").toBool()},
        {QStringLiteral("twitterPromo"), field("twitterPromo")},
        {QStringLiteral("dataAllowed"), field("dataAllowed")},
        {QStringLiteral("dataCap"), field("dataCap")},
        {QStringLiteral("fullVersion"), plan != QLatin1String("free")},
        {QStringLiteral("isYearly"), plan == QLatin1String("yearly")},
        {QStringLiteral("templateTweet"), field("templateTweet")},
        {QStringLiteral("twitterPromoEnabled"), field("twitterPromoEnabled")},
        {QStringLiteral("currentTweet"), field("currentTweet")},
        {QStringLiteral("fullRemainingTime"), field("fullRemainingTime")},
        {QStringLiteral("fastestServers"), field("fastestServers")},
        {QStringLiteral("paymentStatus"), plan.toUpper()},
        {QStringLiteral("vpnServers"), field("vpnServers")},
        {QStringLiteral("countryList"), field("countries")},
    };
    if (account.contains(QStringLiteral("twitterId"))) {
        reply.insert(QStringLiteral("twitterId"), field("twitterId"));
    }
    if (account.contains(QStringLiteral("banner"))) {
        reply.insert(QStringLiteral("bannerDisplay"), field("banner"));
    }
    if (withToken) {
        reply.insert(QStringLiteral("vpnToken"), field("vpnToken"));
    }
    // Scripts reach every field this way, wrong JSON types included.
    const QJsonObject overrides = field("replyOverrides").toObject();
    for (auto it = overrides.constBegin(); it != overrides.constEnd(); ++it) {
        reply.insert(it.key(), it.value());
    }
    for (const QJsonValue &omitted : field("replyOmit").toArray()) {
        reply.remove(omitted.toString());
    }
    const bool confirmed = field("confirmed").toBool();
    const QString statusKey = field("replyStyle").toString() == QLatin1String("result")
                                  ? QStringLiteral("result")
                                  : QStringLiteral("status");
    if (!reply.contains(QStringLiteral("status")) && !reply.contains(QStringLiteral("result"))) {
        reply.insert(statusKey, confirmed ? QStringLiteral("ok") : QStringLiteral("error"));
    }
    if (!confirmed && !reply.contains(QStringLiteral("message"))) {
        reply.insert(QStringLiteral("message"),
                     QStringLiteral("Your email address has not been confirmed yet"));
    }
    return reply;
}

void ref_install_service_routes(httplib::Server &server, RefState &state, const QString &listener)
{
    installAccountRoutes(server, state, listener);
    installUploadRoute(server, state, listener);
    installDashboardRoutes(server, state, listener);
    // Everything else is a 404 page, still logged and still open to scripted faults.
    const auto notFound = route(state, listener, [](const auto &, auto &response) {
        response.status = 404;
        response.set_content("<html><body>Not Found</body></html>", "text/html");
    });
    server.Get(".*", notFound);
    server.Post(".*", notFound);
}
