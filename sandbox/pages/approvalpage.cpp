#include "pages/approvalpage.h"
#include "state/store.h"

using namespace Qt::StringLiterals;

namespace {

QByteArray page(const QString &title, const QString &content)
{
    return uR"(<!DOCTYPE html>
<html lang="it">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>%1</title>
<style>
body { font: 1.1rem/1.5 system-ui, sans-serif; max-width: 32rem; margin: 3rem auto; padding: 0 1rem }
dt { color: #555 }
dd { margin: 0 0 .75rem }
button { font: inherit; padding: .6rem 2rem }
</style>
</head>
<body>
<h1>%1</h1>
%2
<p><small>Servizio di prova: nessun denaro viene addebitato.</small></p>
</body>
</html>
)"_s.arg(title, content)
        .toUtf8();
}

// All values at once: a percent sign in a buyer's name is no place marker.
QString summary(const Purchase &purchase)
{
    return uR"(<dl>
<dt>Ordine</dt><dd>%1</dd>
<dt>Piano</dt><dd>%2</dd>
<dt>Prezzo</dt><dd>%3 %4</dd>
<dt>Acquirente</dt><dd>%5 %6 (%7)</dd>
</dl>)"_s.arg(purchase.orderId.toHtmlEscaped(), purchase.planName.toHtmlEscaped(),
              purchase.price.toHtmlEscaped(), purchase.currency.toHtmlEscaped(),
              purchase.buyer.firstName.toHtmlEscaped(), purchase.buyer.lastName.toHtmlEscaped(),
              purchase.buyer.email.toHtmlEscaped());
}

} // namespace

QByteArray approvalPage(const Purchase &purchase)
{
    return page(u"Approva il pagamento"_s,
                summary(purchase)
                    + "\n<form method=\"post\"><button type=\"submit\">Paga</button></form>"_L1);
}

QByteArray approvedPage(const Purchase &purchase)
{
    return page(u"Pagamento approvato"_s,
                summary(purchase)
                    + "\n<p>Ora puoi chiudere questa pagina e tornare all'applicazione.</p>"_L1);
}

QByteArray cancelledPage(const Purchase &purchase)
{
    return page(u"Pagamento annullato"_s,
                summary(purchase)
                    + "\n<p>Per acquistare, avvia di nuovo l'acquisto dall'applicazione.</p>"_L1);
}

QByteArray unknownOrderPage()
{
    return page(u"Ordine sconosciuto"_s,
                u"<p>Questo ordine non esiste. Avvia di nuovo l'acquisto dall'applicazione.</p>"_s);
}
