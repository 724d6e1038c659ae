#include "gui/AboutPage.hpp"

#include <QFormLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "app/shell/TessarinApp.hpp"
#include "gui/ToolVersions.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {

AboutPage::AboutPage(app::TessarinApp& app, QWidget* parent)
    : QWidget(parent),
      versions_(new ToolVersions(this)),
      ffmpeg_(new QLabel(tr("Checking…"), this)),
      gifsicle_(new QLabel(tr("Checking…"), this)) {
    auto* name = new QLabel(QStringLiteral("Tessarin"), this);
    setFontRole(name, 1.5, true);
    auto* version = new QLabel(tr("Version %1").arg(QStringLiteral(TESSARIN_VERSION)), this);
    version->setObjectName("version");
    auto* summary = new QLabel(
        tr("Converts videos with ffmpeg: re-encoded videos and GIFs from presets, and audio "
           "extraction."),
        this);
    summary->setWordWrap(true);

    ffmpeg_->setObjectName("ffmpegVersion");
    gifsicle_->setObjectName("gifsicleVersion");
    const QString helpers = app.tools()
                                ? QString::fromStdString(app.tools()->ffmpeg.parent_path().string())
                                : tr("not found");
    auto* folder = new QLabel(helpers, this);
    for (QLabel* label : {ffmpeg_, gifsicle_, folder}) {
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
    }
    auto* tools = new QFormLayout;
    tools->addRow(tr("ffmpeg:"), ffmpeg_);
    tools->addRow(tr("gifsicle:"), gifsicle_);
    tools->addRow(tr("Helper folder:"), folder);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(10);
    layout->addWidget(name);
    layout->addWidget(version);
    layout->addWidget(summary);
    layout->addSpacing(8);
    layout->addLayout(tools);
    layout->addStretch();

    connect(versions_, &ToolVersions::versionsReady, this,
            [this](const QString& ffmpeg, const QString& gifsicle) {
                ffmpeg_->setText(ffmpeg);
                gifsicle_->setText(gifsicle);
                emit toolVersionsShown();
            });
    versions_->query(app.tools());
}

QString AboutPage::ffmpegVersion() const {
    return ffmpeg_->text();
}

QString AboutPage::gifsicleVersion() const {
    return gifsicle_->text();
}

}  // namespace tessarin::gui
