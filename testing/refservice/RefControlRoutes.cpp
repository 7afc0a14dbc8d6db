#include "RefControlRoutes.h"

#include "RefServiceRoutes.h"
#include "RefState.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

std::optional<QJsonObject> bodyObject(const httplib::Request &request, httplib::Response &response)
{
    QJsonParseError error{};
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray::fromStdString(request.body), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        ref_reply_json(
            response,
            QJsonObject{{QStringLiteral("error"), QStringLiteral("body must be a JSON object")}},
            400);
        return std::nullopt;
    }
    return document.object();
}

// One object, or {"<listKey>": [objects]}.
QList<QJsonObject> objectsOf(const QJsonObject &body, const char *listKey)
{
    QList<QJsonObject> objects;
    if (body.contains(QLatin1String(listKey))) {
        for (const QJsonValue &value : body.value(QLatin1String(listKey)).toArray()) {
            objects.append(value.toObject());
        }
    } else {
        objects.append(body);
    }
    return objects;
}

void replyArray(httplib::Response &response, const char *key, const QJsonArray &array)
{
    ref_reply_json(response, QJsonObject{{QLatin1String(key), array}});
}

std::string eventChunk(const QJsonObject &event, const QString &name)
{
    std::string chunk;
    if (!name.isEmpty()) {
        chunk += "event: " + name.toStdString() + "\n";
    }
    chunk += "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact).toStdString();
    chunk += "\r\n\r\n";
    return chunk;
}

} // namespace

void ref_install_control_routes(httplib::Server &server, RefState &state)
{
    server.Get("/test/state", [&state](const httplib::Request &, httplib::Response &response) {
        ref_reply_json(response, QJsonObject{{QStringLiteral("accounts"), state.accounts()},
                                             {QStringLiteral("streams"), state.openStreamCount()},
                                             {QStringLiteral("uploads"), state.uploads().size()},
                                             {QStringLiteral("fallroot"), state.fallroot()}});
    });

    server.Post(
        "/test/accounts", [&state](const httplib::Request &request, httplib::Response &response) {
            const auto body = bodyObject(request, response);
            if (!body) {
                return;
            }
            QJsonArray stored;
            for (const QJsonObject &account : objectsOf(*body, "accounts")) {
                if (account.value(QStringLiteral("username")).toString().isEmpty()) {
                    ref_reply_json(response,
                                   QJsonObject{{QStringLiteral("error"),
                                                QStringLiteral("an account needs a username")}},
                                   400);
                    return;
                }
                stored.append(state.putAccount(account));
            }
            replyArray(response, "accounts", stored);
        });

    server.Post("/test/accounts/update", [&state](const httplib::Request &request,
                                                  httplib::Response &response) {
        const auto body = bodyObject(request, response);
        if (!body) {
            return;
        }
        const auto updated =
            state.updateAccount(body->value(QStringLiteral("username")).toString(), *body);
        if (!updated) {
            ref_reply_json(
                response, QJsonObject{{QStringLiteral("error"), QStringLiteral("no such account")}},
                404);
            return;
        }
        ref_reply_json(response, *updated);
    });

    server.Delete(
        "/test/accounts", [&state](const httplib::Request &request, httplib::Response &response) {
            const bool removed =
                state.removeAccount(QString::fromStdString(request.get_param_value("username")));
            ref_reply_json(response, QJsonObject{{QStringLiteral("removed"), removed}},
                           removed ? 200 : 404);
        });

    server.Post(
        "/test/faults", [&state](const httplib::Request &request, httplib::Response &response) {
            const auto body = bodyObject(request, response);
            if (!body) {
                return;
            }
            for (const QJsonObject &fault : objectsOf(*body, "faults")) {
                state.addFault(fault);
            }
            ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")}});
        });

    server.Delete("/test/faults", [&state](const httplib::Request &, httplib::Response &response) {
        state.clearFaults();
        ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")}});
    });

    server.Post("/test/fallroot",
                [&state](const httplib::Request &request, httplib::Response &response) {
                    const auto body = bodyObject(request, response);
                    if (!body) {
                        return;
                    }
                    state.setFallroot(*body);
                    ref_reply_json(response, *body);
                });

    server.Post("/test/blocks", [&state](const httplib::Request &request,
                                         httplib::Response &response) {
        const auto body = bodyObject(request, response);
        if (!body) {
            return;
        }
        const QString username = body->value(QStringLiteral("username")).toString();
        const QString name = body->value(QStringLiteral("event")).toString();
        int queued = 0;
        if (body->contains(QStringLiteral("raw"))) {
            queued = state.pushChunk(body->value(QStringLiteral("raw")).toString().toStdString(),
                                     username);
        }
        for (const QJsonValue &event : body->value(QStringLiteral("events")).toArray()) {
            queued = state.pushChunk(eventChunk(event.toObject(), name), username);
        }
        ref_reply_json(response, QJsonObject{{QStringLiteral("streams"), queued}});
    });

    server.Post(
        "/test/blocks/end", [&state](const httplib::Request &request, httplib::Response &response) {
            // {"drop": true} hangs up instead of ending the stream properly.
            const QJsonObject body =
                QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
            state.endStreams(body.value(QStringLiteral("drop")).toBool());
            ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")}});
        });

    server.Get("/test/uploads", [&state](const httplib::Request &, httplib::Response &response) {
        replyArray(response, "uploads", state.uploads());
    });

    server.Get(R"(/test/uploads/(\d+)/data)",
               [&state](const httplib::Request &request, httplib::Response &response) {
                   const auto data = state.uploadData(std::stoi(request.matches[1].str()));
                   if (!data) {
                       response.status = 404;
                       return;
                   }
                   response.set_content(data->toStdString(), "application/octet-stream");
               });

    server.Get("/test/requests", [&state](const httplib::Request &, httplib::Response &response) {
        replyArray(response, "requests", state.requests());
    });

    server.Delete(
        "/test/requests", [&state](const httplib::Request &, httplib::Response &response) {
            state.clearRequests();
            ref_reply_json(response, QJsonObject{{QStringLiteral("status"), QStringLiteral("ok")}});
        });

    // For an OpenVPN server's --auth-user-pass-verify: is this the account's VPN token?
    server.Get("/test/checkToken", [&state](const httplib::Request &request,
                                            httplib::Response &response) {
        const bool valid =
            state.checkToken(QString::fromStdString(request.get_param_value("username")),
                             QString::fromStdString(request.get_param_value("token")));
        ref_reply_json(response, QJsonObject{{QStringLiteral("valid"), valid}}, valid ? 200 : 403);
    });
}
