// The service's own API, as the client calls it: sign-in, account creation, tokens, log
// upload, the dashboard filters and their event stream, the status probe and the fallback
// file. Every listener serves all of it; scripted faults (RefState) come first.
#pragma once

#include <QJsonObject>
#include <QString>
#include <httplib.h>

class RefState;

void ref_install_service_routes(httplib::Server &server, RefState &state, const QString &listener);

// Sends `object` as compact JSON. Compact on purpose: the client's event-stream parser
// cuts values at ": ".
void ref_reply_json(httplib::Response &response, const QJsonObject &object, int status = 200);

// The sign-in reply for an account that passed the password check.
QJsonObject ref_register_reply(const QJsonObject &account, bool withToken);
