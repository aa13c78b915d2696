#include <KepNuvikaUtil/CreateDbId.h>

#include <array>
#include <utility>

namespace
{
constexpr std::array<const char*, 12> kCodes{
    "CAM", "WS", "DSP", "SVC", "MOT", "SEQ", "SCN", "SRV", "EVL", "GEN", "EVT", "FLD"};

QString cleaned(QString name)
{
    constexpr int kFirstCut = 2; // bars at the very start are no separator
    const int bars = name.indexOf(QLatin1String("||"));
    if (bars >= kFirstCut)
        name.truncate(bars);
    const QString normal = name.normalized(QString::NormalizationForm_KC, QChar::Unicode_1_1);
    QString out;
    out.reserve(normal.size());
    for (const QChar c : normal) {
        switch (c.unicode()) {
        case ' ':
        case '(':
        case ')':
        case '[':
        case ']':
        case '{':
        case '}':
        case '|':
            break;
        case '/':
        case '&':
            out += QLatin1Char('_');
            break;
        case 0x00DF:
            out += QLatin1String("ss");
            break;
        case 0x00E4:
            out += QLatin1String("ae");
            break;
        case 0x00C4:
            out += QLatin1String("Ae");
            break;
        case 0x00F6:
            out += QLatin1String("oe");
            break;
        case 0x00D6:
            out += QLatin1String("Oe");
            break;
        case 0x00FC:
            out += QLatin1String("ue");
            break;
        case 0x00DC:
            out += QLatin1String("Ue");
            break;
        default:
            out += c;
        }
    }
    return out;
}
} // namespace

CreateDbId::CreateDbId(QString name, int id, DbIdType::enuKeyTypes type)
    : m_name(std::move(name)), m_nId(id), m_eType(type), m_typeName(getTypeName(type))
{
}

CreateDbId::CreateDbId(QString name, int id, const QString& typeName)
    : m_name(std::move(name)), m_nId(id), m_typeName(typeName)
{
}

QString CreateDbId::getTypeName(DbIdType::enuKeyTypes type)
{
    const auto index = static_cast<std::size_t>(type);
    return QLatin1String(index < kCodes.size() ? kCodes[index] : kCodes[DbIdType::eGEN]);
}

QString CreateDbId::getDbId() const
{
    const QString id = m_typeName + QLatin1Char('_') + cleaned(m_name) + QLatin1Char('_')
        + QString::asprintf("%04d", m_nId);
    return id.toLower();
}

QString CreateDbId::getEntryName() const
{
    return m_name + QLatin1String(" (") + QString::number(m_nId) + QLatin1Char(')');
}

QString CreateDbId::getFolderName() const { return m_name + QString::number(m_nId); }

QString CreateDbId::getStreamName() const { return getStreamNamePart() + QString::number(m_nId); }

QString CreateDbId::getStreamNamePart() const { return QStringLiteral("Stream "); }
