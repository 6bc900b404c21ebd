#include <apps/common/Printable.h>

#include <algorithm>

#include <QString>

std::string printable(const std::string& text)
{
    QString shown = QString::fromStdString(text);
    std::replace_if(
        shown.begin(), shown.end(),
        [](QChar c) {
            return c.category() == QChar::Other_Control || c.category() == QChar::Other_Format;
        },
        QChar('?'));
    return shown.toStdString();
}
