// Holds a link on the clipboard of the window system: reads it from standard input, says "+" on standard
// output once it is there, and ends when something else is copied or the window system goes.

#include <unistd.h>

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <QTimer>
#include <QUrl>
#include <cstdlib>
#include <string>

namespace {

constexpr std::size_t kLongestLink = 4096;

std::string readLink() {
    std::string link(kLongestLink + 1, '\0');
    std::size_t size = 0;
    for (ssize_t got = 1; got > 0 && size < link.size(); size += static_cast<std::size_t>(got)) {
        got = read(STDIN_FILENO, link.data() + size, link.size() - size);
        if (got < 0) return {};
    }
    link.resize(size);
    return size > kLongestLink ? std::string() : link;
}

}  // namespace

int main(int argc, char** argv) {
    // A compositor lends its clipboard only to a window in front; the X11 clipboard, which it shares, needs
    // none.
    if (const char* display = std::getenv("DISPLAY"); display && *display)
        setenv("QT_QPA_PLATFORM", "xcb", 0);
    const QString link = QString::fromStdString(readLink());
    if (link.isEmpty()) return 1;
    QGuiApplication application(argc, argv);
    auto* clipboard = QGuiApplication::clipboard();
    auto* data = new QMimeData;  // the clipboard's from now on
    data->setUrls({QUrl(link)});
    const QString shown = link.toHtmlEscaped();
    data->setHtml(QStringLiteral("<a href=\"%1\">%1</a>").arg(shown));
    data->setText(link);
    clipboard->clear();
    clipboard->setMimeData(data);
    const auto lost = [clipboard] {
        if (!clipboard->ownsClipboard()) QGuiApplication::quit();
    };
    QObject::connect(clipboard, &QClipboard::dataChanged, &application, lost);
    // Once the window system has seen it.
    QTimer::singleShot(0, [&] {
        if (!clipboard->ownsClipboard()) return QGuiApplication::exit(1);
        // Who asked may be gone; the link stays all the same.
        [[maybe_unused]] const ssize_t told = write(STDOUT_FILENO, "+", 1);
        close(STDOUT_FILENO);
    });
    return QGuiApplication::exec();
}
