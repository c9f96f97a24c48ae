# The filter language, and the fields and rows whose values it reads.
set(QORPAGER_EXPRESSION_SOURCES
  QORArg.cpp
  QORBuiltInFields.cpp
  QORExpressionEvaluation.cpp
  QORExpressionEvaluationLexer.cpp
  QORExpressionEvaluationParser.cpp
  QORExpressionEvaluationValue.cpp
  QORExpressionOperand.cpp
  QORExpressionProgram.cpp
  QORExpressionTables.cpp
  QORExpressionText.cpp
  QORExpressionTree.cpp
  QORField.cpp
  QORFieldGetters.cpp
  QORFieldSet.cpp
  Operators/QORDateTimeRewrite.cpp)
