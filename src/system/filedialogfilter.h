#pragma once

#include <QString>

namespace tessel {

// The program keeps its file filters in the form "Desc (*.a;*.b)|*.a;*.b|Desc2|*.c"; file
// dialogs here take "Desc (*.a *.b);;Desc2 (*.c)".
QString qtFileDialogFilter(const QString& filter);

} // namespace tessel
