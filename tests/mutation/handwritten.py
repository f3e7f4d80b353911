"""Mutants that no rule makes: what somebody might add, or do another way, with good intentions.

Each is (name, file, text that stands once in the file, text in its place).
"""

CORVANE = "src/core/corvane.cpp"
JSON = "src/core/jsontransport.cpp"
DISPATCHER = "src/core/replydispatcher.cpp"
WIRE = "src/core/wire_p.h"
PAYPAL = "src/purchases/paypalpurchase.cpp"
PLANS = "src/purchases/purchaseplans.cpp"
CHECK = "src/updates/updatecheck.cpp"
DOWNLOAD = "src/updates/updatedownload.cpp"
USAGE = "src/usage/usageevents.cpp"
CLIENT = "include/corvane.h"
RECORDS = "include/corvanetypes.h"


def before(text, added):
    return text, added + text


def after(text, added):
    return text, text + added


CONSTRUCTED = "    // By name"
GUARD = "    if (!checkConfiguration())\n        return;\n"
SENT = "    connectReply("
SAVED = "    file.write(body);\n"
RETURN_URL = "    return url;\n"
NO_ERROR = "reply->error() == QNetworkReply::NoError;"

HANDWRITTEN = [
    # The object.
    ("manager-without-parent", CORVANE, "QNetworkAccessManager(this)", "QNetworkAccessManager(nullptr)"),
    ("manager-of-the-parent", CORVANE, "QNetworkAccessManager(this)", "QNetworkAccessManager(parent)"),
    ("manager-shared", CORVANE, "m_network(new QNetworkAccessManager(this))",
     "m_network([] { static QNetworkAccessManager shared; return &shared; }())"),
    ("parent-dropped", CORVANE, "QObject(parent)", "QObject(nullptr)"),
    ("time-out", CORVANE, *before(CONSTRUCTED, "m_network->setTransferTimeout(30000);\n")),
    ("redirect-policy", CORVANE, *before(CONSTRUCTED, "m_network->setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);\n")),
    ("auto-delete-replies", CORVANE, *before(CONSTRUCTED, "m_network->setAutoDeleteReplies(true);\n")),
    ("strict-transport-security", CORVANE, *before(CONSTRUCTED, "m_network->setStrictTransportSecurityEnabled(true);\n")),
    ("no-cookies", CORVANE, *before(CONSTRUCTED, "m_network->setCookieJar(nullptr);\n")),
    ("prints", CORVANE, *before(CONSTRUCTED, 'fputs("constructed", stderr);\n')),
    ("reads-the-environment", CORVANE, *before(CONSTRUCTED, 'm_productCode = qEnvironmentVariable("CORVANE_PRODUCT_CODE");\n')),
    ("constructor-sends", CORVANE, *before(CONSTRUCTED, 'm_network->connectToHost(u"127.0.0.1"_s, 1);\n')),
    ("destructor-emits", CORVANE, "Corvane::~Corvane() = default;", "Corvane::~Corvane() { Q_EMIT networkError(QString()); }"),
    ("destructor-deletes-the-manager-first", CORVANE, "Corvane::~Corvane() = default;", "Corvane::~Corvane() { delete m_network; }"),
    ("url-only-if-valid", CORVANE, *before("    m_serverUrl = url;", "    if (url.isValid())\n")),
    ("url-without-trailing-slash", CORVANE, "m_serverUrl = url;", "m_serverUrl = url.adjusted(QUrl::StripTrailingSlash);"),
    ("url-with-clean-path", CORVANE, "m_serverUrl = url;", "m_serverUrl = url.adjusted(QUrl::NormalizePathSegments);"),
    ("setter-emits", CORVANE, *after("    m_serverUrl = url;", "\n    checkConfiguration();")),
    ("upper-case-of-ascii-alone", CORVANE, "code.trimmed().toUpper()", "QString::fromUtf8(code.trimmed().toUtf8().toUpper())"),
    ("upper-case-before-trimming", CORVANE, "code.trimmed().toUpper()", "code.toUpper().trimmed()"),
    ("refusal-queued", CORVANE, 'Q_EMIT networkError(u"Server URL o product code non configurati."_s);',
     'QMetaObject::invokeMethod(this, [this] { Q_EMIT networkError(u"Server URL o product code non configurati."_s); },'
     " Qt::QueuedConnection);"),
    ("path-appended", CORVANE, "url.setPath(path,", "url.setPath(url.path() + path,"),
    ("query-dropped", CORVANE, *before(RETURN_URL, "    url.setQuery(QString());\n")),
    ("fragment-dropped", CORVANE, *before(RETURN_URL, "    url.setFragment(QString());\n")),
    ("port-dropped", CORVANE, *before(RETURN_URL, "    url.setPort(-1);\n")),
    ("user-info-dropped", CORVANE, *before(RETURN_URL, "    url.setUserInfo(QString());\n")),
    # Requests.
    ("content-type-with-charset", JSON, 'u"application/json"_s', 'u"application/json; charset=utf-8"_s'),
    ("accept-header", JSON, *before(SENT, '    request.setRawHeader("Accept", "application/json");\n')),
    ("authorization-header", JSON, *before(SENT, '    request.setRawHeader("Authorization", m_productCode.toUtf8());\n')),
    ("user-agent", JSON, *before(SENT, '    request.setHeader(QNetworkRequest::UserAgentHeader, u"Corvane"_s);\n')),
    ("uncached-post", JSON, *before(SENT, "    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);\n")),
    ("no-cache-header-on-post", JSON, *before(SENT, '    request.setRawHeader("Cache-Control", "no-cache");\n')),
    ("time-out-of-a-post", JSON, *before(SENT, "    request.setTransferTimeout(30000);\n")),
    ("redirects-limited", JSON, *before(SENT, "    request.setMaximumRedirectsAllowed(3);\n")),
    ("redirects-of-one-origin", JSON, *before(SENT, "    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::SameOriginRedirectPolicy);\n")),
    ("priority", JSON, *before(SENT, "    request.setPriority(QNetworkRequest::LowPriority);\n")),
    ("line-break-after-the-body", JSON, "toJson(QJsonDocument::Compact)", "toJson(QJsonDocument::Compact) + '\\n'"),
    ("post-in-the-background", JSON, *before(SENT, "    request.setAttribute(QNetworkRequest::BackgroundRequestAttribute, true);\n")),
    ("attribute-a-bool", WIRE, "QNetworkRequest::AlwaysNetwork);", "false);"),
    ("time-out-of-a-get", WIRE, *before("    return request;\n", "    request.setTransferTimeout(30000);\n")),
    ("redirects-of-a-get-limited", WIRE, *before("    return request;\n", "    request.setMaximumRedirectsAllowed(5);\n")),
    ("nothing-saved-to-caches", WIRE, *before("    return request;\n", "    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);\n")),
    ("plans-uncached", PLANS, "QNetworkRequest(url)", "[&url] { QNetworkRequest request(url); request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork); return request; }()"),
    ("plans-keep-the-query", PLANS, "QString::fromUtf8(", 'url.query() + u"&"_s + QString::fromUtf8('),
    ("plus-not-encoded", PLANS, "toPercentEncoding(m_productCode)", 'toPercentEncoding(m_productCode, "+")'),
    ("tilde-encoded", PLANS, "toPercentEncoding(m_productCode)", 'toPercentEncoding(m_productCode, {}, "~")'),
    ("nothing-encoded", PLANS, "QUrl::toPercentEncoding(m_productCode)", "m_productCode.toUtf8()"),
    ("check-keeps-the-query", CHECK, "QUrlQuery query;", "QUrlQuery query(m_serverUrl);"),
    ("empty-channel-refused", CHECK, *after(GUARD, "    if (channel.isEmpty())\n        return;\n")),
    ("channel-encoded-twice", CHECK, 'u"channel"_s, channel)', 'u"channel"_s, QString::fromLatin1(QUrl::toPercentEncoding(channel)))'),
    ("channel-trimmed", CHECK, 'u"channel"_s, channel)', 'u"channel"_s, channel.trimmed())'),
    ("channel-in-lower-case", CHECK, 'u"channel"_s, channel)', 'u"channel"_s, channel.toLower())'),
    ("time-in-hexadecimal", CHECK, "currentMSecsSinceEpoch())", "currentMSecsSinceEpoch(), 16)"),
    ("version-kept-of-a-refused-check", CHECK, *before(GUARD, "    m_currentVersion = currentVersion;\n")),
    ("version-trimmed", CHECK, "m_currentVersion = currentVersion;", "m_currentVersion = currentVersion.trimmed();"),
    ("product-code-in-the-capture", PAYPAL, 'body{{u"paypal_order_id"_s', 'body{{u"product_code"_s, m_productCode}, {u"paypal_order_id"_s'),
    ("address-upper-cased-first", PAYPAL, "email.trimmed().toLower()", "email.toUpper().trimmed().toLower()"),
    ("plan-upper-cased-before-trimming", PAYPAL, "planCode.trimmed().toUpper()", "planCode.toUpper().trimmed()"),
    ("key-in-upper-case", PAYPAL, "licenseKey.trimmed()", "licenseKey.trimmed().toUpper()"),
    ("empty-order-refused", PAYPAL, *before('    const QJsonObject body{{u"paypal_order_id"_s', "    if (paypalOrderId.isEmpty())\n        return;\n")),
    ("payload-wins", USAGE, *before("    postJson", "    for (auto it = payload.begin(); it != payload.end(); ++it)\n        body.insert(it.key(), it.value());\n")),
    ("payload-nested", USAGE, "QJsonObject body = payload;", 'QJsonObject body{{u"payload"_s, payload}};'),
    ("empty-key-left-out", USAGE, *before('    body.insert("license_key"', "    if (!licenseKey.isEmpty())\n")),
    ("empty-event-is-null", USAGE, ", eventType)", ", eventType.isEmpty() ? QJsonValue() : QJsonValue(eventType))"),
    ("machine-trimmed", USAGE, ", machineId)", ", machineId.trimmed())"),
    ("event-trimmed", USAGE, ", eventType)", ", eventType.trimmed())"),
    # The reply's way.
    ("context-is-the-reply", DISPATCHER, "&QNetworkReply::finished, this,", "&QNetworkReply::finished, reply,"),
    ("connection-queued", DISPATCHER, "handleReply(reply, operation); }", "handleReply(reply, operation); }, Qt::QueuedConnection"),
    ("version-of-each-check", DISPATCHER, "[this, reply, operation] { handleReply(reply, operation); }",
     "[this, reply, operation, version = m_currentVersion] { m_currentVersion = version; handleReply(reply, operation); }"),
    ("path-of-each-download", DISPATCHER, "[this, reply, operation] { handleReply(reply, operation); }",
     "[this, reply, operation, path = m_downloadPath] { m_downloadPath = path; handleReply(reply, operation); }"),
    ("child-left", DISPATCHER, *before("    connect(reply, &QNetworkReply::finished", "    new QObject(this);\n")),
    ("error-told-at-once", DISPATCHER, *before("    connect(reply, &QNetworkReply::finished",
     "    connect(reply, &QNetworkReply::errorOccurred, this, [this, reply] { Q_EMIT networkError(reply->errorString()); });\n")),
    ("tls-errors-ignored", DISPATCHER, *before("    connect(reply, &QNetworkReply::finished", "    reply->ignoreSslErrors();\n")),
    ("reply-deleted-without-the-event-loop", DISPATCHER, "    reply->deleteLater();\n", "    const std::unique_ptr<QNetworkReply> end(reply);\n"),
    ("reply-deleted-after-the-signal", DISPATCHER, "    reply->deleteLater();\n",
     "    struct End { QNetworkReply *reply; ~End() { reply->deleteLater(); } } const end{reply};\n"),
    ("body-read-in-part", DISPATCHER, "reply->readAll();", "reply->read(1 << 16);"),
    ("body-trimmed", DISPATCHER, "reply->readAll();", "reply->readAll().trimmed();"),
    ("blank-body-is-empty", DISPATCHER, "!body.isEmpty()", "!body.trimmed().isEmpty()"),
    ("success-only-with-a-2xx", DISPATCHER, NO_ERROR, NO_ERROR[:-1] + " && (reply->url().isLocalFile() || reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() / 100 == 2);"),
    ("explained-from-400-on", DISPATCHER, "status > 0", "status > 399"),
    ("error-is-the-reason-phrase", DISPATCHER, "networkError(reply->errorString())", "networkError(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString())"),
    ("error-translated", DISPATCHER, "networkError(reply->errorString())", 'networkError(tr("Errore: %1").arg(reply->errorString()))'),
    ("plans-from-a-top-level-array", DISPATCHER, 'objectFrom(body).value("plans"_L1).toArray()', 'QJsonDocument::fromJson(body).isArray() ? QJsonDocument::fromJson(body).array() : objectFrom(body).value("plans"_L1).toArray()'),
    ("download-refused-if-json", DISPATCHER, "saveDownload(body);", "saveDownload(QJsonDocument::fromJson(body).isObject() ? QByteArray() : body);"),
    ("download-falls-through", DISPATCHER, "saveDownload(body);\n        break;", "saveDownload(body);\n        [[fallthrough]];"),
    ("prints-the-status", DISPATCHER, *after("    reply->deleteLater();\n", '    fprintf(stderr, "%d", status);\n')),
    ("error-text-of-the-top-level", WIRE, "toString(fallback)", 'toString(reply.value("message"_L1).toString(fallback))'),
    ("error-text-from-a-string", WIRE, "toString(fallback)", 'toString(reply.value("error"_L1).toString(fallback))'),
    ("error-text-trimmed", WIRE, "toString(fallback)", "toString(fallback).trimmed()"),
    ("empty-error-text-replaced", WIRE, "    return reply.value", '    if (reply.value("error"_L1).toObject().value("message"_L1).toString().isEmpty())\n        return fallback;\n    return reply.value'),
    # Parsers.
    ("ids-only-of-a-success", PAYPAL, *before("    purchase.paymentId =", "    if (purchase.success)\n")),
    ("success-needs-an-address", PAYPAL, "purchase.success ? u", "purchase.success && !purchase.approvalUrl.isEmpty() ? u"),
    ("error-beats-success", PAYPAL, "purchase.success ? u", 'purchase.success && !reply.contains("error"_L1) ? u'),
    ("fraction-cut-off", PAYPAL, 'reply.value("payment_id"_L1).toInt()', 'static_cast<int>(reply.value("payment_id"_L1).toDouble())'),
    ("number-wraps", PAYPAL, 'reply.value("payment_id"_L1).toInt()', 'static_cast<int>(reply.value("payment_id"_L1).toInteger())'),
    ("address-as-a-url", PAYPAL, 'reply.value("approval_url"_L1).toString()', 'QUrl(reply.value("approval_url"_L1).toString()).toString()'),
    ("answered-key-trimmed", PAYPAL, 'reply.value("license_key"_L1).toString()', 'reply.value("license_key"_L1).toString().trimmed()'),
    ("capture-needs-success", PAYPAL, 'reply.value("paid"_L1).toBool()', 'reply.value("paid"_L1).toBool() && reply.value("success"_L1).toBool(true)'),
    ("raw-is-the-release", CHECK, "update.raw = reply;", 'update.raw = reply.value("release"_L1).toObject();'),
    ("stable-address-stands-in", CHECK, 'release.value("download_url"_L1).toString()', 'release.value("download_url"_L1).toString(release.value("stable_download_url"_L1).toString())'),
    ("digest-in-lower-case", CHECK, 'value("sha256"_L1).toString()', 'value("sha256"_L1).toString().toLower()'),
    ("notes-trimmed", CHECK, 'value("notes"_L1).toString()', 'value("notes"_L1).toString().trimmed()'),
    ("newer-only", CHECK, "latestVersion != currentVersion", "latestVersion > currentVersion"),
    ("versions-in-any-case", CHECK, "update.latestVersion != currentVersion", "update.latestVersion.compare(currentVersion, Qt::CaseInsensitive) != 0"),
    ("versions-trimmed", CHECK, "update.latestVersion != currentVersion", "update.latestVersion.trimmed() != currentVersion.trimmed()"),
    ("versions-normalised", CHECK, "update.latestVersion != currentVersion", "update.latestVersion.normalized(QString::NormalizationForm_C) != currentVersion.normalized(QString::NormalizationForm_C)"),
    ("versions-by-locale", CHECK, "update.latestVersion != currentVersion", "update.latestVersion.localeAwareCompare(currentVersion) != 0"),
    ("other-product-ignored", CHECK, "update.latestVersion != currentVersion", "update.latestVersion != currentVersion && (update.productCode.isEmpty() || update.productCode == m_productCode)"),
    # Saving.
    ("download-needs-configuration", DOWNLOAD, *before("    if (!url.isValid()", GUARD)),
    ("relative-url-refused", DOWNLOAD, "!url.isValid()", "!url.isValid() || url.isRelative()"),
    ("url-resolved", DOWNLOAD, "Wire::uncachedRequest(url)", "Wire::uncachedRequest(m_serverUrl.resolved(url))"),
    ("path-kept-of-a-refused-download", DOWNLOAD, *before("    if (!url.isValid()", "    m_downloadPath = destinationPath;\n")),
    ("path-cleaned", DOWNLOAD, "m_downloadPath = destinationPath;", "m_downloadPath = QDir::cleanPath(destinationPath);"),
    ("path-made-absolute", DOWNLOAD, "m_downloadPath = destinationPath;", "m_downloadPath = QFileInfo(destinationPath).absoluteFilePath();"),
    ("path-trimmed", DOWNLOAD, "m_downloadPath = destinationPath;", "m_downloadPath = destinationPath.trimmed();"),
    ("path-forgotten", DOWNLOAD, *before("    QFile file(path);", "    m_downloadPath.clear();\n")),
    ("directory-failure-told", DOWNLOAD, "    QDir().mkpath(QFileInfo(file).absolutePath());\n", '    if (!QDir().mkpath(QFileInfo(file).absolutePath())) {\n        Q_EMIT networkError(u"Impossibile creare la cartella."_s);\n        return;\n    }\n'),
    ("directory-removed-again", DOWNLOAD, *before('        Q_EMIT networkError(u"Impossibile', "        QDir().rmdir(QFileInfo(file).absolutePath());\n")),
    ("write-failure-told", DOWNLOAD, SAVED, '    if (file.write(body) != body.size() || !file.flush()) {\n        Q_EMIT networkError(u"Impossibile salvare aggiornamento."_s);\n        return;\n    }\n'),
    ("file-closed-before-the-signal", DOWNLOAD, *after(SAVED, "    file.close();\n")),
    ("file-flushed", DOWNLOAD, *after(SAVED, "    file.flush();\n")),
    ("file-made-read-only", DOWNLOAD, *after(SAVED, "    file.setPermissions(QFileDevice::ReadOwner);\n")),
    ("file-replaced-by-a-new-one", DOWNLOAD, *before("    if (!file.open(", "    file.remove();\n")),
    # The public headers, beyond the rules.
    ("class-not-exported", CLIENT, "class CORVANE_EXPORT Corvane", "class Corvane"),
    ("event-overridden", CLIENT, *after("    ~Corvane() override;", "\n    bool event(QEvent *e) override { return QObject::event(e); }")),
    ("timer-overridden", CLIENT, *before("private:\n", "protected:\n    void timerEvent(QTimerEvent *) override { }\n\n")),
    ("property", CLIENT, *after("    Q_OBJECT\n", "    Q_PROPERTY(QString productCode READ productCode)\n")),
    ("class-information", CLIENT, *after("    Q_OBJECT\n", '    Q_CLASSINFO("a", "b")\n')),
    ("operation-registered", CLIENT, *before("    bool checkConfiguration();", "    Q_ENUM(Operation)\n")),
    ("operation-invokable", CLIENT, "    void fetchPurchasePlans();", "    Q_INVOKABLE void fetchPurchasePlans();"),
    ("default-parent-dropped", CLIENT, "*parent = nullptr)", "*parent)"),
    ("virtual-added", CLIENT, *after("    void saveDownload(const QByteArray &body);", "\n    virtual void unused() { }")),
    ("record-comparable", RECORDS, *before("Q_DECLARE_METATYPE(UpdateInfo)", "inline bool operator==(const UpdateInfo &a, const UpdateInfo &b) { return a.raw == b.raw; }\n")),
    ("record-with-another-field", RECORDS, *before("};\n\n// The result of starting", "    QString extra;\n")),
]
