import QtQuick 2.15
import QtQuick.Controls 2.15

// A dialog's button that Enter presses as well as Space, so that a dialog answers the keyboard
// the way a person expects.
Button {
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()
}
