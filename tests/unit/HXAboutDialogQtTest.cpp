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

using namespace Qt::Literals::StringLiterals;

class HXAboutDialogQtTest : public QObject {
    Q_OBJECT

    // A bundle "Mendwell.app" with the shipped interface file and icon, and the
    // credits and the suite's version file only when asked for.
    QString makeBundle(bool withExtras)
    {
        const QString bundle =
            m_folder.filePath(withExtras ? u"full/Mendwell.app"_s : u"bare/Mendwell.app"_s);
        const QString resources = bundle + u"/Contents/Resources"_s;
        QDir().mkpath(resources);
        PropertyList::writeXmlFile(bundle + u"/Contents/Info.plist"_s,
                                   QVariantMap{{u"CFBundleExecutable"_s, u"Mendwell"_s},
                                               {u"CFBundleShortVersionString"_s, u"1.0.0"_s},
                                               {u"CFBundleVersion"_s, u"100"_s},
                                               {u"CFBundleIconFile"_s, u"Mendwell.png"_s}});
        QStringList shipped{u"HXAbout.ui"_s, u"Mendwell.png"_s};
        if (withExtras)
            shipped << u"Credits.html"_s << u"HXUpdates.plist"_s;
        for (const QString &name : shipped)
            QFile::copy(QStringLiteral(MENDWELL_SOURCE_DIR "/resources/") + name, resources + u'/' + name);
        return bundle;
    }

    QTemporaryDir m_folder;

private Q_SLOTS:
    void withCreditsAndSuiteVersion()
    {
        const auto about = HXAboutDialogController::load(HXBundle(makeBundle(true)));
        QVERIFY(about);
        QDialog *window = about->aboutWindow();
        QCOMPARE(window->windowTitle(), u"About Mendwell"_s);
        QCOMPARE(window->findChild<QLabel *>(u"appNameLabel"_s)->text(), u"Mendwell"_s);
        QCOMPARE(window->findChild<QLabel *>(u"verLabel"_s)->text(),
                 u"1.0.0 (100)\n\nKestrelkit Suite 2026 (2026.1)"_s);
        QVERIFY(!window->findChild<QLabel *>(u"appIconView"_s)->pixmap().isNull());
        QVERIFY(window->findChild<QFrame *>(u"creditsScrollView"_s)->isVisibleTo(window));
        QVERIFY(window->findChild<QTextBrowser *>(u"creditsTextView"_s)
                    ->toPlainText()
                    .contains(u"the Lanternfish team"_s));
        QVERIFY(window->findChild<QTextBrowser *>(u"creditsTextView"_s)->isReadOnly());
        QVERIFY(window->height() > 250);
    }

    void withoutThemTheCreditsHideAndTheWindowIs250High()
    {
        const auto about = HXAboutDialogController::load(HXBundle(makeBundle(false)));
        QVERIFY(about);
        QDialog *window = about->aboutWindow();
        const int width = window->width();
        // The empty suite fields leave two blanks and empty parentheses.
        QCOMPARE(window->findChild<QLabel *>(u"verLabel"_s)->text(), u"1.0.0 (100)\n\nKestrelkit  ()"_s);
        QVERIFY(!window->findChild<QFrame *>(u"creditsScrollView"_s)->isVisibleTo(window));
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        QCOMPARE(window->height(), 250);
        QCOMPARE(window->width(), width);
    }

    void aMissingInterfaceFileLoadsNothing()
    {
        const QString bundle = makeBundle(false);
        QFile::remove(bundle + u"/Contents/Resources/HXAbout.ui"_s);
        QVERIFY(!HXAboutDialogController::load(HXBundle(bundle)));
    }
};

QTEST_MAIN(HXAboutDialogQtTest)
#include "HXAboutDialogQtTest.moc"
