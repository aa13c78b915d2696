#pragma once

#include <KepNuvikaUtil/DbIdType.h>
#include <KepNuvikaUtil/Export.h>

#include <QtCore/QHashFunctions>
#include <QtCore/QString>

class QDebug;

/// Turns an object's displayed name, number and kind into the stable, lowercase identifier that it is stored
/// under ("Entrance Hall", 7, a camera: "cam_entrancehall_0007"), and into names derived from it.
/// Threads: a plain value.
class KEPNUVIKAUTIL_EXPORT CreateDbId
{
public:
    /// Empty name and code, number 0.
    CreateDbId() = default;
    /// A kind outside the enumeration takes the code "GEN".
    CreateDbId(QString name, int id, DbIdType::enuKeyTypes type);
    /// Takes the code as given; the kind becomes eGEN whatever it says.
    CreateDbId(QString name, int id, const QString& typeName);

    /// Code, name and number, joined by "_". The name loses what follows "||" (from position 2 on), blanks
    /// and brackets; "/" and "&" become "_"; umlauts are spelled out.
    QString getDbId() const;
    QString getEntryName() const; ///< "Door (3)"
    QString getFolderName() const; ///< "Door3"
    QString getStreamName() const; ///< "Stream 3"
    QString getStreamNamePart() const; ///< "Stream "

    /// Equal name, number and code.
    bool operator==(const CreateDbId& other) const
    {
        return m_nId == other.m_nId && m_name == other.m_name && m_typeName == other.m_typeName;
    }
    bool operator!=(const CreateDbId& other) const { return !(*this == other); }
    friend KEPNUVIKAUTIL_EXPORT uint qHash(const CreateDbId& id, uint seed);

private:
    static QString getTypeName(DbIdType::enuKeyTypes type);

    QString m_name;
    qint32 m_nId = 0;
    [[maybe_unused]] DbIdType::enuKeyTypes m_eType = DbIdType::eGEN;
    QString m_typeName;
};

KEPNUVIKAUTIL_EXPORT uint qHash(const CreateDbId& id, uint seed = 0);

/// For logs: getDbId().
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const CreateDbId& id);
