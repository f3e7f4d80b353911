# Included by project(). Most of a mutant's time is the compiler reading Qt's headers.
cmake_language(DEFER CALL target_precompile_headers Corvane PRIVATE
    <QtCore/QtCore> <QtNetwork/QtNetwork>)
