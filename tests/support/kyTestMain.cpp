#include <QCoreApplication>
#include <gtest/gtest.h>
#include <tbb/parallel_for.h>

#include <tests/support/kyTestResources.h>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    testing::InitGoogleTest(&argc, argv);

    // The task library keeps its worker threads for the life of the process: let it make them
    // before the first test counts.
    tbb::parallel_for(0, 1000, [](int) {});

    // So does the test library with what it watches threads by, on some systems a thread.
    {
        SCOPED_TRACE("");
    }

    testing::UnitTest::GetInstance()->listeners().Append(new kyTest::Resources);
    return RUN_ALL_TESTS();
}
