#ifndef PLANSMODEL_H
#define PLANSMODEL_H

#include <QtCore/qabstractitemmodel.h>
#include <QtCore/qjsonarray.h>

// The plans as a table. The service alone decides what a plan is: members that are not known stand
// in a column of their own, and what is no object, or has no code, is shown and cannot be bought.
class PlansModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column { Name, Description, Price, Others, ColumnCount };

    using QAbstractTableModel::QAbstractTableModel;

    const QJsonArray &plans() const;
    void setPlans(const QJsonArray &plans);
    // Whether any plan has members that are not known.
    bool hasOthers() const;
    // Empty if it cannot be bought.
    QString planCode(const QModelIndex &index) const;

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;

private:
    QString text(const QModelIndex &index) const;

    QJsonArray m_plans;
};

#endif // PLANSMODEL_H
