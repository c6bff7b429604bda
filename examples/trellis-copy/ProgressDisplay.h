#ifndef TRELLIS_COPY_PROGRESSDISPLAY_H
#define TRELLIS_COPY_PROGRESSDISPLAY_H

#include <QElapsedTimer>
#include <QString>

/*!
    Shows the progress of a copy on standard output.

    On a terminal it keeps one line redrawn in place (carriage return and
    clear to the end of the line), at most ten times a second, cut to the
    terminal's width. Otherwise it writes plain lines, at most one a second,
    so that a log stays readable.
*/
class ProgressDisplay
{
public:
    ProgressDisplay();

    //! Whether standard output is a terminal, where the line is redrawn in place.
    bool isLive() const { return m_live; }

    /*!
        Shows \a percent, the numbers of entries \a copied and \a skipped and
        the current \a entry, after \a label (such as "[1/2]", or empty);
        skipped when the last line is too recent.
    */
    void Show(const QString &label, int percent, int copied, int skipped, const QString &entry);

    //! Erases the live line, so that other output starts on a clean line.
    void Clear();

    //! Erases the live line and writes \a text and a line end to standard error.
    void Message(const QString &text);

    //! Erases the live line and writes \a text and a line end to standard output.
    void Print(const QString &text);

private:
    const bool m_live;
    bool m_lineShown = false;
    QElapsedTimer m_sinceLastLine;
};

#endif // TRELLIS_COPY_PROGRESSDISPLAY_H
