// The About window filled from a bundle, with and without the optional credits
// and suite version file, from the interface file the bundle ships.

#include "app/HXAboutDialogController.h"
#include "system/PropertyList.h"

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QFile>
#include <QFrame>
#include <QLabel>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>

class HXAboutDialogQtTest : public QObject {
    Q_OBJECT

    // A bundle "Mendwell.app" with the shipped interface file and icon, and the
    // credits and the suite's version file only when asked for.
    QString makeBundle(bool withExtras)
    {
        const QString bundle = m_folder.filePath(withExtras ? QStringLiteral("full/Mendwell.app")
                                                            : QStringLiteral("bare/Mendwell.app"));
        const QString resources = bundle + QStringLiteral("/Contents/Resources");
        QDir().mkpath(resources);
        PropertyList::writeXmlFile(
            bundle + QStringLiteral("/Contents/Info.plist"),
            QVariantMap{{QStringLiteral("CFBundleExecutable"), QStringLiteral("Mendwell")},
                        {QStringLiteral("CFBundleShortVersionString"), QStringLiteral("1.0.0")},
                        {QStringLiteral("CFBundleVersion"), QStringLiteral("100")},
                        {QStringLiteral("CFBundleIconFile"), QStringLiteral("Mendwell.png")}});
        QStringList shipped{QStringLiteral("HXAbout.ui"), QStringLiteral("Mendwell.png")};
        if (withExtras)
            shipped << QStringLiteral("Credits.html") << QStringLiteral("HXUpdates.plist");
        for (const QString &name : shipped)
            QFile::copy(QStringLiteral(MENDWELL_SOURCE_DIR "/resources/") + name,
                        resources + QLatin1Char('/') + name);
        return bundle;
    }

    QTemporaryDir m_folder;

private Q_SLOTS:
    void withCreditsAndSuiteVersion()
    {
        const auto about = HXAboutDialogController::load(HXBundle(makeBundle(true)));
        QVERIFY(about);
        QDialog *window = about->aboutWindow();
        QCOMPARE(window->windowTitle(), QStringLiteral("About Mendwell"));
        QCOMPARE(window->findChild<QLabel *>(QStringLiteral("appNameLabel"))->text(),
                 QStringLiteral("Mendwell"));
        QCOMPARE(window->findChild<QLabel *>(QStringLiteral("verLabel"))->text(),
                 QStringLiteral("1.0.0 (100)\n\nKestrelkit Suite 2026 (2026.1)"));
        QVERIFY(!window->findChild<QLabel *>(QStringLiteral("appIconView"))->pixmap().isNull());
        QVERIFY(window->findChild<QFrame *>(QStringLiteral("creditsScrollView"))->isVisibleTo(window));
        QVERIFY(window->findChild<QTextBrowser *>(QStringLiteral("creditsTextView"))
                    ->toPlainText()
                    .contains(QStringLiteral("the Lanternfish team")));
        QVERIFY(window->findChild<QTextBrowser *>(QStringLiteral("creditsTextView"))->isReadOnly());
        QVERIFY(window->height() > 250);
    }

    void withoutThemTheCreditsHideAndTheWindowIs250High()
    {
        const auto about = HXAboutDialogController::load(HXBundle(makeBundle(false)));
        QVERIFY(about);
        QDialog *window = about->aboutWindow();
        const int width = window->width();
        // The empty suite fields leave two blanks and empty parentheses.
        QCOMPARE(window->findChild<QLabel *>(QStringLiteral("verLabel"))->text(),
                 QStringLiteral("1.0.0 (100)\n\nKestrelkit  ()"));
        QVERIFY(!window->findChild<QFrame *>(QStringLiteral("creditsScrollView"))->isVisibleTo(window));
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        QCOMPARE(window->height(), 250);
        QCOMPARE(window->width(), width);
    }

    void aMissingInterfaceFileLoadsNothing()
    {
        const QString bundle = makeBundle(false);
        QFile::remove(bundle + QStringLiteral("/Contents/Resources/HXAbout.ui"));
        QVERIFY(!HXAboutDialogController::load(HXBundle(bundle)));
    }
};

QTEST_MAIN(HXAboutDialogQtTest)
#include "HXAboutDialogQtTest.moc"
