#ifndef DATABASE_H
#define DATABASE_H

#include <QtCore/qstringlist.h>
#include <QtCore/quuid.h>
#include <QtSql/qsqldatabase.h>
#include <QtSql/qsqlerror.h>
#include <QtSql/qsqlquery.h>
#include <QtSql/qsqlrecord.h>

// A connection of the test's own to an SQLite file. Its transaction ends with it.
class Database
{
public:
    explicit Database(const QString &file)
        : m_database(QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_name))
    {
        m_database.setDatabaseName(file);
        if (!m_database.open())
            qFatal("%s cannot be opened", qPrintable(file));
    }
    ~Database()
    {
        m_database = {};
        QSqlDatabase::removeDatabase(m_name);
    }
    Q_DISABLE_COPY_MOVE(Database)

    // The rows as sqlite3 prints them; the error if there is one.
    QStringList query(const QString &sql) const
    {
        QSqlQuery query(m_database);
        if (!query.exec(sql))
            return {query.lastError().databaseText()};
        const int columns = query.record().count();
        QStringList rows;
        while (query.next()) {
            QStringList values;
            for (int i = 0; i < columns; ++i)
                values.append(query.value(i).toString());
            rows.append(values.join(u'|'));
        }
        return rows;
    }

private:
    QString m_name = QUuid::createUuid().toString();
    QSqlDatabase m_database;
};

#endif // DATABASE_H
