// A picture as a file that is there whole or not at all.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

// The reason, or nothing. Until the disk has everything, the file has another name: .NAME.part.
QString writePictureFile(const QString& folder, const QString& name, const QByteArray& bytes);
