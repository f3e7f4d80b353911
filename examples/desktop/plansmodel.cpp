#include "plansmodel.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr auto codeMember = "plan_code"_L1;
constexpr auto nameMember = "name"_L1;
constexpr auto descriptionMember = "description"_L1;
constexpr auto priceMember = "price"_L1;
constexpr auto currencyMember = "currency"_L1;
// Says nothing to the user.
constexpr auto productMember = "product_code"_L1;

// Of any type; a text without its quotes, and nothing of a member that is not there.
QString textOf(const QJsonValue &value)
{
    if (value.isString())
        return value.toString();
    if (value.isUndefined() || value.isNull())
        return {};
    const QByteArray json = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.sliced(1, json.size() - 2));
}

QString nameOf(const QJsonValue &plan)
{
    if (!plan.isObject())
        return plan.isNull() ? u"null"_s : textOf(plan);
    const QString name = textOf(plan[nameMember]);
    return name.isEmpty() ? textOf(plan[codeMember]) : name;
}

QString othersOf(const QJsonValue &plan)
{
    QJsonObject others = plan.toObject();
    for (const QLatin1StringView member :
         {codeMember, nameMember, descriptionMember, priceMember, currencyMember, productMember})
        others.remove(member);
    QStringList lines;
    for (auto other = others.constBegin(); other != others.constEnd(); ++other)
        lines += other.key() + ": "_L1 + textOf(other.value());
    return lines.join(u'\n');
}

} // namespace

const QJsonArray &PlansModel::plans() const
{
    return m_plans;
}

void PlansModel::setPlans(const QJsonArray &plans)
{
    beginResetModel();
    m_plans = plans;
    endResetModel();
}

bool PlansModel::hasOthers() const
{
    return std::any_of(m_plans.begin(), m_plans.end(),
                       [](const auto &plan) { return !othersOf(plan).isEmpty(); });
}

QString PlansModel::planCode(const QModelIndex &index) const
{
    return m_plans.at(index.row())[codeMember].toString().trimmed();
}

int PlansModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_plans.size());
}

int PlansModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant PlansModel::data(const QModelIndex &index, int role) const
{
    if (role == Qt::DisplayRole || role == Qt::AccessibleTextRole)
        return text(index);
    // Where there is no room. A tool tip would take the service's text for rich text.
    if (role == Qt::ToolTipRole)
        return text(index).toHtmlEscaped();
    return {};
}

QVariant PlansModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    static const QStringList titles = {u"Piano"_s, u"Descrizione"_s, u"Prezzo"_s, u"Altro"_s};
    return titles.value(section);
}

Qt::ItemFlags PlansModel::flags(const QModelIndex &index) const
{
    const Qt::ItemFlags flags = QAbstractTableModel::flags(index);
    return planCode(index).isEmpty() ? flags & ~Qt::ItemIsSelectable & ~Qt::ItemIsEnabled : flags;
}

QString PlansModel::text(const QModelIndex &index) const
{
    const QJsonValue plan = m_plans.at(index.row());
    switch (index.column()) {
    case Name:
        return nameOf(plan);
    case Description:
        return textOf(plan[descriptionMember]);
    case Price:
        return u"%1 %2"_s.arg(textOf(plan[priceMember]), textOf(plan[currencyMember])).trimmed();
    default:
        return othersOf(plan);
    }
}
