# The filter language and the field model it shares with the rows.
set(QORPAGER_EXPRESSION_SOURCES
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
  Operators/QORDateTimeRewrite.cpp)
