#pragma once

#include "imagefile.h"

#include <QDateTime>
#include <QString>

#include <functional>

namespace tessel {

// The upgrade button's tool tip: what the chosen image file is.
//
//   kind 2:     "App 0012h / V2.1.7 / SF 0001A2B3h / HF 00000004h (15/11/2026 14:03:59)"
//   otherwise:  "V2.0.9 (15/11/2026 14:03:59)"
//   error form: "Error: N/S"
//
// A raw image (kind 1) is post-processed first and its output described; that output must
// carry a full identification block. In the error form N is the error and S the step where
// it happened:
//   N: 53 file not found, 75 file not readable, 5 the post-processor failed (missing, a
//      non-zero exit, or a name without ".s"), 13 the output has no full identification
//   S: 1 the chosen file, 2 the post-processor, 3 the post-processor's output
// The date and time are the chosen file's last change.
struct UpgradeTip
{
    QString text;
    QString explanation; // the error form in words, for the status bar; empty otherwise
};

QString identityTipText(const ImageIdentity& identity, const QDateTime& changed);

using PostProcessor =
    std::function<bool(const QString& fileName, const QString& options, QString* output)>;
UpgradeTip upgradeTip(const QString& fileName, const QString& options,
                      const PostProcessor& postProcessor);

} // namespace tessel
