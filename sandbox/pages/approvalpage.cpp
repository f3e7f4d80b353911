#include "pages/approvalpage.h"

#include "state/store.h"

#include <QtCore/qfile.h>
#include <QtCore/qurl.h>

using namespace Qt::StringLiterals;

namespace {

QString frame()
{
    QFile file(u":/pages/approvalpage.html"_s);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("The approval page was not built in.");
    return QString::fromUtf8(file.readAll());
}

// The kind is good, bad or neither.
QByteArray page(const QString &title, QLatin1StringView kind, const QString &content)
{
    static const QString whole = frame();
    return whole.arg(title, kind, content).toUtf8();
}

QString price(const Purchase &purchase)
{
    return QString(purchase.price).replace(u'.', u',') + QChar::Nbsp + purchase.currency;
}

// All values at once: a percent sign in a buyer's name is no place marker.
QString summary(const Purchase &purchase)
{
    return uR"(
<dl>
<div><dt>Ordine</dt><dd>%1</dd></div>
<div><dt>Piano</dt><dd>%2</dd></div>
<div><dt>Acquirente</dt><dd>%3 %4</dd></div>
<div><dt>E-mail</dt><dd>%5</dd></div>
<div class="total"><dt>Prezzo</dt><dd>%6</dd></div>
</dl>)"_s.arg(purchase.orderId.toHtmlEscaped(), purchase.planName.toHtmlEscaped(),
              purchase.buyer.firstName.toHtmlEscaped(), purchase.buyer.lastName.toHtmlEscaped(),
              purchase.buyer.email.toHtmlEscaped(), price(purchase).toHtmlEscaped());
}

// The first button is the one that Tab reaches first.
QString form(const Purchase &purchase)
{
    return uR"(
<form method="post">
<button>Paga</button>
<button formaction="../cancel/%1">Annulla</button>
</form>)"_s.arg(QString::fromLatin1(QUrl::toPercentEncoding(purchase.orderId)));
}

} // namespace

QByteArray approvalPage(const Purchase &purchase)
{
    switch (purchase.state) {
    case Purchase::Pending:
        return page(u"Approva il pagamento"_s, {},
                    "<p>Controlla l'ordine, poi paga o annulla.</p>"_L1 + summary(purchase)
                        + form(purchase));
    case Purchase::Approved:
    case Purchase::Paid:
        return page(u"Pagamento approvato"_s, "good"_L1,
                    "<p>Ora puoi chiudere questa pagina e tornare all'applicazione.</p>"_L1
                        + summary(purchase));
    case Purchase::Cancelled:
        return page(u"Pagamento annullato"_s, "bad"_L1,
                    "<p>Per acquistare, avvia di nuovo l'acquisto dall'applicazione.</p>"_L1
                        + summary(purchase));
    }
    Q_UNREACHABLE();
}

QByteArray unknownOrderPage()
{
    return page(u"Ordine sconosciuto"_s, "bad"_L1,
                u"<p>Questo ordine non esiste. Avvia di nuovo l'acquisto dall'applicazione.</p>"_s);
}

QByteArray otherSitePage()
{
    return page(
        u"Richiesta rifiutata"_s, "bad"_L1,
        u"<p>La richiesta viene da un altro sito. Apri questa pagina dall'applicazione.</p>"_s);
}
