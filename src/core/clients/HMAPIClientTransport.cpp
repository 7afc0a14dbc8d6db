// Sending requests and reading replies: the HTTP half of HMAPIClient.
#include "HMAPIClient.h"

#include "HMClock.h"
#include "HMURLEncoding.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRandomGenerator>

namespace {

const char *const kTimedOutProperty = "hmTimedOut";
const char *const kTooLargeProperty = "hmTooLarge";

QString stringValue(const QVariant &value)
{
    if (value.typeId() == QMetaType::Bool) {
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    }
    return value.toString();
}

HMStringPairs stringPairs(const HMAPIParams &params)
{
    HMStringPairs pairs;
    for (const auto &pair : params) {
        pairs.append({pair.first, stringValue(pair.second)});
    }
    return pairs;
}

bool hasBytes(const HMAPIParams &params)
{
    for (const auto &pair : params) {
        if (pair.second.typeId() == QMetaType::QByteArray) {
            return true;
        }
    }
    return false;
}

QByteArray quoted(const QString &text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('"'), QStringLiteral("%22"));
    return '"' + escaped.toUtf8() + '"';
}

QByteArray multipartBody(const HMAPIParams &params, const QByteArray &boundary)
{
    QByteArray body;
    int fileIndex = 0;
    for (const auto &pair : params) {
        body += "--" + boundary + "\r\n";
        if (pair.second.typeId() == QMetaType::QByteArray) {
            const QString fileName = QString::asprintf("userfile%d%x.zip", fileIndex++,
                                                       QRandomGenerator::global()->generate());
            body += "Content-Disposition: attachment; name=" + quoted(pair.first) +
                    "; filename=" + quoted(fileName) + "\r\n";
            body += "Content-Type: application/octet-stream\r\n\r\n";
            body += pair.second.toByteArray();
        } else {
            body += "Content-Disposition: form-data; name=" + quoted(pair.first) + "\r\n\r\n";
            body += stringValue(pair.second).toUtf8();
        }
        body += "\r\n";
    }
    body += "--" + boundary + "--\r\n";
    return body;
}

HMError urlLoadingError(long code, const QString &description, const QString &reason = QString())
{
    return HMError::errorWithDomain(HMAPIClient::kURLLoadingDomain, code, description, reason);
}

bool isJSONContentType(const QNetworkReply *reply)
{
    const QString header = reply->header(QNetworkRequest::ContentTypeHeader).toString();
    return header.section(QLatin1Char(';'), 0, 0)
               .trimmed()
               .compare(QLatin1String("application/json"), Qt::CaseInsensitive) == 0;
}

} // namespace

// Qt reports HTTP statuses as errors too; those are not transport failures here.
bool HMAPIClient::isHTTPStatusError(int error)
{
    return (error >= QNetworkReply::ContentAccessDenied &&
            error <= QNetworkReply::UnknownContentError) ||
           error == QNetworkReply::ProtocolInvalidOperationError ||
           (error >= QNetworkReply::InternalServerError &&
            error <= QNetworkReply::UnknownServerError);
}

HMError HMAPIClient::transportError(const QNetworkReply *reply)
{
    const QString reason = reply->errorString();
    switch (reply->error()) {
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::ProxyConnectionRefusedError:
        return urlLoadingError(-1004, QStringLiteral("Could not connect to the server."), reason);
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::ProxyNotFoundError:
        return urlLoadingError(
            -1003, QStringLiteral("A server with the specified hostname could not be found."),
            reason);
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::ProxyConnectionClosedError:
        return urlLoadingError(-1005, QStringLiteral("The network connection was lost."), reason);
    case QNetworkReply::TimeoutError:
    case QNetworkReply::ProxyTimeoutError:
        return urlLoadingError(-1001, QStringLiteral("The operation timed out."), reason);
    case QNetworkReply::SslHandshakeFailedError:
        return urlLoadingError(
            -1200,
            QStringLiteral(
                "An SSL error has occurred and a secure connection to the server cannot be made."),
            reason);
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
        return urlLoadingError(
            -1009, QStringLiteral("The Internet connection appears to be offline."), reason);
    case QNetworkReply::TooManyRedirectsError:
        return urlLoadingError(-1007, QStringLiteral("Too many HTTP redirects."), reason);
    case QNetworkReply::ProtocolUnknownError:
        return urlLoadingError(-1002, QStringLiteral("Unsupported URL."), reason);
    default:
        return urlLoadingError(-1, QStringLiteral("An unknown error occurred."), reason);
    }
}

void HMAPIClient::doGETAPI(int root, const QString &path, const HMAPIParams &params,
                           HMAPICompletion completion)
{
    QString address = m_APIRoots.value(root) + path;
    if (!params.isEmpty()) {
        address += QLatin1Char('?') + url_encode_dict(stringPairs(params));
    }
    send(QNetworkRequest(QUrl::fromEncoded(address.toUtf8(), QUrl::TolerantMode)), HMAPIMethodGET,
         QByteArray(), std::move(completion));
}

void HMAPIClient::doPOSTAPI(int root, const QString &path, const HMAPIParams &params,
                            HMAPICompletion completion)
{
    QNetworkRequest request(
        QUrl::fromEncoded((m_APIRoots.value(root) + path).toUtf8(), QUrl::TolerantMode));
    QByteArray body;
    if (hasBytes(params)) {
        const QByteArray boundary =
            "Boundary+" +
            QByteArray::number(QRandomGenerator::global()->generate64(), 16).toUpper();
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QByteArray("multipart/form-data; boundary=" + boundary));
        body = multipartBody(params, boundary);
    } else {
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QByteArrayLiteral("application/x-www-form-urlencoded"));
        body = url_encode_dict(stringPairs(params)).toUtf8();
    }
    send(request, HMAPIMethodPOST, body, std::move(completion));
}

void HMAPIClient::send(QNetworkRequest request, int method, const QByteArray &body,
                       HMAPICompletion completion)
{
    QNetworkReply *reply =
        method == HMAPIMethodGET ? m_network->get(request) : m_network->post(request, body);
    // The time-out runs on the injected clock so that tests can let a minute pass at once.
    const HMClock::TimerId timer = m_clock.singleShot(kRequestTimeoutMs, reply, [reply] {
        reply->setProperty(kTimedOutProperty, true);
        reply->abort();
    });
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64 total) {
        if ((received > kMaximumReplyBytes || total > kMaximumReplyBytes) &&
            !reply->property(kTooLargeProperty).toBool()) {
            reply->setProperty(kTooLargeProperty, true);
            reply->abort();
        }
    });
    if (method == HMAPIMethodPOST) {
        connect(reply, &QNetworkReply::uploadProgress, this,
                [this, reply](qint64 sent, qint64 total) {
                    Q_EMIT uploadProgress(reply->url().path(), sent, total);
                });
    }
    connect(reply, &QNetworkReply::finished, this, [this, reply, timer, method, completion] {
        m_clock.cancel(timer);
        reply->deleteLater();
        finish(reply, method, completion);
    });
}

void HMAPIClient::finish(QNetworkReply *reply, int method, const HMAPICompletion &completion)
{
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const int httpStatus = statusAttribute.isValid() ? statusAttribute.toInt() : 0;
    HMMaybeError error;
    QVariant object;
    QByteArray body;

    if (reply->property(kTimedOutProperty).toBool()) {
        error = urlLoadingError(-1001, QStringLiteral("The operation timed out."));
    } else if (reply->property(kTooLargeProperty).toBool()) {
        error = urlLoadingError(-1103,
                                QStringLiteral("The requested resource exceeds the maximum size."));
    } else {
        body = reply->readAll();
        if (reply->error() != QNetworkReply::NoError &&
            !(statusAttribute.isValid() && isHTTPStatusError(reply->error()))) {
            error = transportError(reply);
        } else if (isJSONContentType(reply) && !body.isEmpty()) {
            QJsonParseError parseError{};
            const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
            if (parseError.error == QJsonParseError::NoError) {
                object = document.toVariant();
            } else {
                object = body;
                error = urlLoadingError(
                    -1017,
                    QStringLiteral(
                        "The data couldn't be read because it isn't in the correct format."),
                    parseError.errorString());
            }
        } else {
            object = body;
        }
        if (!error && httpStatus == 500) {
            error = urlLoadingError(-1011, QStringLiteral("Bad Server Response."));
        }
    }

    if (error) {
        // The status probe answers a bare "ok" that is no JSON: its text still counts.
        if (method == HMAPIMethodGET && !body.isEmpty() &&
            reply->url().toString(QUrl::FullyEncoded).contains(QLatin1String("/core/status"))) {
            completion(QVariantMap{{QStringLiteral("response"), QString::fromUtf8(body)}},
                       std::nullopt);
            return;
        }
        completion(QVariantMap(), error);
        return;
    }
    if (object.typeId() == QMetaType::QVariantMap) {
        setStatus(HMAPIStatusHealthy);
        completion(fixData(object.toMap()), std::nullopt);
        return;
    }
    completion(QVariantMap(),
               HMError::errorWithCode(httpStatus == 404 ? 404 : 1,
                                      QStringLiteral("Hollowmere server is acting up"),
                                      QStringLiteral("Please bear with us")));
}
