// Pictures as files, each of which is there whole or not at all.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <vector>

struct PictureFile {
    QString name;
    QByteArray bytes;
    QString problem; // why it could not be written
};

// Until the disk has all of a file, it has another name: .NAME.part. Many at once cost a disk little more
// than one, since the file system commits them together.
void writePictureFiles(const QString& folder, std::vector<PictureFile>* files);
